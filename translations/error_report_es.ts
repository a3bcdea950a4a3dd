<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es">
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
        <translation>El cliente de Velmora 3 se ha cerrado inesperadamente. Hay un archivo
de depuración que ayudará a los desarrolladores a corregir el problema.
Describa en el campo de texto cómo reproducirlo.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>¿Desea enviar el informe de errores?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>¡Gracias por su informe!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Se ha producido un error al transmitir los datos.</translation>
    </message>
</context>
</TS>
