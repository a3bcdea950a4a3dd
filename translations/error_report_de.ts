<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Fehler in Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Der Velmora-3-Client ist abgestürzt. Eine Debug-Datei hilft den
Entwicklern, das Problem zu beheben. Bitte beschreiben Sie im Textfeld,
wie sich der Absturz nachstellen lässt.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Möchten Sie den Fehlerbericht senden?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Vielen Dank für Ihren Bericht!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Beim Übertragen der Daten ist ein Fehler aufgetreten.</translation>
    </message>
</context>
</TS>
