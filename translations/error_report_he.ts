<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="he">
<context>
    <name>ErrorReport</name>
    <message>
        <source>Velmora 3 Error</source>
        <translation>שגיאה ב-Velmora 3</translation>
    </message>
    <message>
        <source>The Velmora 3 client has crashed. There is a debug file which will help
the developers to fix the problem. Please type a description in the text
field to reproduce the issue.</source>
        <translation>הלקוח של Velmora 3 קרס. קיים קובץ ניפוי שגיאות
שיעזור למפתחים לתקן את הבעיה. נא לתאר בשדה הטקסט
כיצד ניתן לשחזר את התקלה.</translation>
    </message>
    <message>
        <source>Do you want to send the error report?</source>
        <translation>האם לשלוח את דוח השגיאה?</translation>
    </message>
    <message>
        <source>Thank you for your report!</source>
        <translation>תודה על הדיווח!</translation>
    </message>
    <message>
        <source>An error occured while transmitting the data.</source>
        <translation>אירעה שגיאה בעת העברת הנתונים.</translation>
    </message>
</context>
</TS>
