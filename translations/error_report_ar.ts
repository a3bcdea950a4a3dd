<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ar">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>خطأ في Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>تعطّل عميل Velmora 3. يوجد ملف تصحيح أخطاء سيساعد المطورين
على إصلاح المشكلة. يُرجى أن تصف في حقل النص الخطوات التي تؤدي
إلى حدوث المشكلة مرة أخرى.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>هل تريد إرسال تقرير الخطأ؟</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>شكرًا على تقريرك!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>حدث خطأ أثناء نقل البيانات.</translation>
    </message>
</context>
</TS>
