<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 错误</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 客户端已崩溃。
调试文件将有助于开发人员修复此问题。
请在文本框中描述如何重现此问题。</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>是否发送错误报告？</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>感谢您的报告！</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>传输数据时出错。</translation>
    </message>
</context>
</TS>
