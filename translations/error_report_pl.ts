<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pl">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Błąd Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Klient Velmora 3 uległ awarii. Plik debugowania pomoże
programistom naprawić problem. Opisz w polu tekstowym,
jak odtworzyć ten błąd.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Czy chcesz wysłać raport o błędzie?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Dziękujemy za raport!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Wystąpił błąd podczas przesyłania danych.</translation>
    </message>
</context>
</TS>
