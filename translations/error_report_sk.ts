<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="sk">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Chyba aplikácie Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Klient Velmora 3 neočakávane skončil. Ladiaci súbor pomôže vývojárom
problém opraviť. Opíšte, prosím, do textového poľa, ako možno chybu
znova vyvolať.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Chcete odoslať hlásenie o chybe?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Ďakujeme za vaše hlásenie!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Pri prenose údajov sa vyskytla chyba.</translation>
    </message>
</context>
</TS>
