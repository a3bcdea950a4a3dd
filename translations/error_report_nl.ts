<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="nl">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Fout in Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>De Velmora 3-client is onverwacht afgesloten. Een debugbestand helpt
de ontwikkelaars het probleem op te lossen. Beschrijf in het tekstveld
hoe het probleem kan worden gereproduceerd.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Wilt u het foutrapport verzenden?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Bedankt voor uw melding!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Er is een fout opgetreden bij het verzenden van de gegevens.</translation>
    </message>
</context>
</TS>
