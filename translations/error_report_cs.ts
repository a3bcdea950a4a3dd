<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="cs">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Chyba aplikace Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Klient Velmora 3 neočekávaně skončil. Ladicí soubor pomůže vývojářům
problém opravit. Popište prosím do textového pole, jak lze chybu
znovu vyvolat.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Chcete odeslat hlášení o chybě?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Děkujeme za vaše hlášení!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Při přenosu dat došlo k chybě.</translation>
    </message>
</context>
</TS>
