<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ja">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 エラー</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 クライアントがクラッシュしました。
開発者が問題を修正するのに役立つデバッグファイルがあります。
問題を再現する手順をテキスト欄に入力してください。</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>エラーレポートを送信しますか？</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>ご報告ありがとうございます！</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>データの送信中にエラーが発生しました。</translation>
    </message>
</context>
</TS>
