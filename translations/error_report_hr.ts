<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="hr">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Pogreška programa Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Klijent Velmora 3 se srušio. Datoteka za otklanjanje pogrešaka pomoći će
programerima da riješe problem. Molimo opišite u tekstnom polju
kako se problem može ponoviti.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Želite li poslati izvješće o pogrešci?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Hvala na izvješću!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Došlo je do pogreške prilikom prijenosa podataka.</translation>
    </message>
</context>
</TS>
