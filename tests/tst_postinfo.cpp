#include "errorreport.h"

#include <QtTest>

class tst_PostInfo : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void keepsWhatTheTableHeld();
};

// "section|key|value" per pair, sorted, so that a failing comparison shows what differs.
// A section without pairs shows up as "section|" and fails every expectation.
static QStringList flattened(const PostInfo &table)
{
    QStringList pairs;
    for (auto section = table.cbegin(); section != table.cend(); ++section) {
        if (section->isEmpty())
            pairs << section.key() + QLatin1Char('|');
        for (auto pair = section->cbegin(); pair != section->cend(); ++pair)
            pairs << section.key() + QLatin1Char('|') + pair.key() + QLatin1Char('|') + pair.value();
    }
    pairs.sort();
    return pairs;
}

void tst_PostInfo::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("pairs");

    QTest::newRow("header") << "[meta]\nk=v" << QStringList{"meta|k|v"};
    QTest::newRow("header trimmed") << "[ meta ]\nk=v" << QStringList{"meta|k|v"};
    QTest::newRow("[] empties the section") << "[s]\n[]\nk=v" << QStringList();
    QTest::newRow("[ ] empties the section") << "[s]\n[ ]\nk=v\n[t]\nj=w" << QStringList{"t|j|w"};
    QTest::newRow("pair with both brackets is a header") << "[s]\nx=[1]\nk=v" << QStringList{"x=1|k|v"};
    QTest::newRow("brackets in either order") << "a]b[c\nk=v" << QStringList{"abc|k|v"};
    QTest::newRow("one bracket is no header") << "[meta\nk=v\n[s]\nk=[v" << QStringList{"s|k|[v"};
    QTest::newRow("first = splits") << "[s]\na = b = c" << QStringList{"s|a|b = c"};
    QTest::newRow("quotes kept") << "[meta]\nurl = \"http://h/up\"" << QStringList{"meta|url|\"http://h/up\""};
    QTest::newRow("no = : key is value") << "[s]\n; note" << QStringList{"s|; note|; note"};
    QTest::newRow("empty value") << "[s]\nname=" << QStringList();
    QTest::newRow("empty key") << "[s]\n=value" << QStringList();
    QTest::newRow("blank key and value") << "[s]\n \t= \t" << QStringList();
    QTest::newRow("pair before the first header") << "k=v\n[s]" << QStringList();
    QTest::newRow("inner blanks kept") << "[s]\n  some key  =  a  b  " << QStringList{"s|some key|a  b"};
    QTest::newRow("CR LF like LF") << "[meta]\r\nurl=a\r\n\r\n[post data]\r\nx=1\r\n"
                                   << QStringList{"meta|url|a", "post data|x|1"};
    QTest::newRow("blank and white-space lines") << "\n\n[s]\n   \n\t\r\n\nk=v\n \n"
                                                  << QStringList{"s|k|v"};
    QTest::newRow("names are case-sensitive") << "[Meta]\nURL=a\nurl=b\n[meta]\nurl=c"
                                              << QStringList{"Meta|URL|a", "Meta|url|b", "meta|url|c"};
    QTest::newRow("last wins, sections merge") << "[s]\nk=1\nm=2\n[t]\nj=3\n[s]\nk=4"
                                               << QStringList{"s|k|4", "s|m|2", "t|j|3"};
    QTest::newRow("no header at all") << "url=http://h\nmime=x" << QStringList();
    QTest::newRow("empty text") << QString() << QStringList();
    QTest::newRow("non-ASCII") << QString::fromUtf8("[données]\nclé=été") << QStringList{QString::fromUtf8("données|clé|été")};
}

void tst_PostInfo::parse()
{
    QFETCH(QString, text);
    QFETCH(QStringList, pairs);

    PostInfo table;
    parsePostInfo(text, table);
    QCOMPARE(flattened(table), pairs);
}

void tst_PostInfo::keepsWhatTheTableHeld()
{
    PostInfo table;
    table[QStringLiteral("old")][QStringLiteral("k")] = QStringLiteral("v");
    table[QStringLiteral("s")][QStringLiteral("k")] = QStringLiteral("before");
    parsePostInfo(QStringLiteral("[s]\nk=after\nj=1"), table);
    QCOMPARE(flattened(table), QStringList({"old|k|v", "s|j|1", "s|k|after"}));
}

QTEST_APPLESS_MAIN(tst_PostInfo)
#include "tst_postinfo.moc"
