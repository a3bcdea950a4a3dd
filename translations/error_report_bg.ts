<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="bg">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Грешка във Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Клиентът на Velmora 3 се срина. Файл за отстраняване на грешки
ще помогне на разработчиците да решат проблема. Моля, опишете
в текстовото поле как може да се възпроизведе сривът.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Искате ли да изпратите доклада за грешката?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Благодарим ви за доклада!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Възникна грешка при предаването на данните.</translation>
    </message>
</context>
</TS>
