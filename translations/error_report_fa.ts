<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fa">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>خطای Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>کلاینت Velmora 3 از کار افتاد. یک فایل اشکال‌زدایی وجود دارد
که به توسعه‌دهندگان در رفع مشکل کمک می‌کند. لطفاً در کادر متن
شرح دهید که چگونه می‌توان این مشکل را دوباره ایجاد کرد.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>آیا می‌خواهید گزارش خطا را ارسال کنید؟</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>از گزارش شما سپاسگزاریم!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>هنگام انتقال داده‌ها خطایی رخ داد.</translation>
    </message>
</context>
</TS>
