<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_TW">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 錯誤</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 用戶端已當機。
偵錯檔案將有助於開發人員修正此問題。
請在文字欄位中描述如何重現此問題。</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>是否要傳送錯誤報告？</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>感謝您的回報！</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>傳輸資料時發生錯誤。</translation>
    </message>
</context>
</TS>
