<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="it">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Errore di Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Il client Velmora 3 si è arrestato in modo anomalo. Un file di debug aiuterà
gli sviluppatori a risolvere il problema. Descrivi nel campo di testo
come riprodurre il problema.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Vuoi inviare la segnalazione dell&apos;errore?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Grazie per la segnalazione!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Si è verificato un errore durante la trasmissione dei dati.</translation>
    </message>
</context>
</TS>
