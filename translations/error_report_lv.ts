<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="lv">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 kļūda</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 klients avarēja. Atkļūdošanas fails palīdzēs izstrādātājiem
novērst problēmu. Lūdzu, teksta laukā aprakstiet, kā šo problēmu
var atkārtot.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Vai vēlaties nosūtīt kļūdas ziņojumu?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Paldies par jūsu ziņojumu!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Datu pārsūtīšanas laikā radās kļūda.</translation>
    </message>
</context>
</TS>
