<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="tr">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 Hatası</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 istemcisi çöktü. Geliştiricilerin sorunu gidermesine
yardımcı olacak bir hata ayıklama dosyası mevcut. Lütfen sorunun
nasıl yeniden oluşturulabileceğini metin alanında açıklayın.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>Hata raporunu göndermek istiyor musunuz?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>Raporunuz için teşekkür ederiz!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>Veriler aktarılırken bir hata oluştu.</translation>
    </message>
</context>
</TS>
