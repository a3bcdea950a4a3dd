<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Ошибка Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Клиент Velmora 3 аварийно завершил работу. Отладочный файл
поможет разработчикам исправить проблему. Пожалуйста, опишите
в текстовом поле, как воспроизвести ошибку.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Отправить отчёт об ошибке?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Спасибо за ваш отчёт!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>При передаче данных произошла ошибка.</translation>
    </message>
</context>
</TS>
