<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fi">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 -virhe</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 -asiakasohjelma kaatui. Virheenjäljitystiedosto auttaa
kehittäjiä korjaamaan ongelman. Kirjoita tekstikenttään kuvaus siitä,
miten ongelman voi toistaa.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Haluatko lähettää virheraportin?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Kiitos raportistasi!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Tietojen siirrossa tapahtui virhe.</translation>
    </message>
</context>
</TS>
