<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ca">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Error de Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>El client de Velmora 3 s&apos;ha tancat inesperadament. Un fitxer de depuració
ajudarà els desenvolupadors a corregir l&apos;error. Descriviu al camp de text
com es pot reproduir el problema.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Voleu enviar l&apos;informe d&apos;error?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Gràcies per l&apos;informe!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>S&apos;ha produït un error en transmetre les dades.</translation>
    </message>
</context>
</TS>
