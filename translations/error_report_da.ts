<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="da">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Fejl i Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3-klienten er gået ned. En fejlfindingsfil vil hjælpe udviklerne
med at rette problemet. Beskriv venligst i tekstfeltet, hvordan problemet
kan genskabes.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Vil du sende fejlrapporten?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Tak for din rapport!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Der opstod en fejl under overførslen af data.</translation>
    </message>
</context>
</TS>
