<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="gd">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Mearachd ann an Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Thuislich an cliant Velmora 3. Tha faidhle dì-bhugachaidh ann a chuidicheas
an luchd-leasachaidh gus an duilgheadas a chàradh. Mìnich san raon teacsa
mar a ghabhas an duilgheadas ath-chruthachadh.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>A bheil thu airson aithris na mearachd a chur?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Mòran taing airson d&apos; aithris!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Thachair mearachd rè tar-chur an dàta.</translation>
    </message>
</context>
</TS>
