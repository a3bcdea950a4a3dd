<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ko">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>Velmora 3 오류</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>Velmora 3 클라이언트가 비정상적으로 종료되었습니다.
개발자가 문제를 해결하는 데 도움이 되는 디버그 파일이 있습니다.
문제를 재현하는 방법을 텍스트 필드에 입력해 주십시오.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>오류 보고서를 보내시겠습니까?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>보고해 주셔서 감사합니다!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>데이터를 전송하는 중에 오류가 발생했습니다.</translation>
    </message>
</context>
</TS>
