<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pt_BR">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Erro do Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>O cliente Velmora 3 fechou inesperadamente. Há um arquivo de depuração
que ajudará os desenvolvedores a corrigir o problema. Descreva no
campo de texto como reproduzir o problema.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Deseja enviar o relatório de erro?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Obrigado pelo seu relatório!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Ocorreu um erro ao transmitir os dados.</translation>
    </message>
</context>
</TS>
