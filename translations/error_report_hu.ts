<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="hu">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 – hiba</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>A Velmora 3 kliens összeomlott. Egy hibakeresési fájl segít a fejlesztőknek
a probléma elhárításában. Kérjük, írja le a szövegmezőben, hogyan lehet
a hibát újra előidézni.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Szeretné elküldeni a hibajelentést?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Köszönjük a jelentését!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Hiba történt az adatok továbbítása közben.</translation>
    </message>
</context>
</TS>
