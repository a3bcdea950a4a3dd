<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="uk">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Помилка Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Клієнт Velmora 3 аварійно завершив роботу. Файл налагодження
допоможе розробникам виправити проблему. Опишіть, будь ласка,
у текстовому полі, як відтворити проблему.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Надіслати звіт про помилку?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Дякуємо за ваш звіт!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Під час передавання даних сталася помилка.</translation>
    </message>
</context>
</TS>
