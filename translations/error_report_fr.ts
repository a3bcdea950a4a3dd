<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Erreur de Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Le client Velmora 3 s&apos;est arrêté brutalement. Un fichier de débogage aidera
les développeurs à corriger le problème. Veuillez décrire
dans le champ de texte comment reproduire le problème.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Voulez-vous envoyer le rapport d&apos;erreur&#xa0;?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Merci pour votre rapport&#xa0;!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Une erreur s&apos;est produite lors de la transmission des données.</translation>
    </message>
</context>
</TS>
