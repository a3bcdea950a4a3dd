<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="nn">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Feil i Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3-klienten krasja. Ei feilsøkingsfil vil hjelpe utviklarane
med å rette problemet. Ver venleg og skildre i tekstfeltet korleis
ein kan gjenskape problemet.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Vil du sende feilrapporten?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Takk for rapporten!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Det oppstod ein feil ved overføring av data.</translation>
    </message>
</context>
</TS>
