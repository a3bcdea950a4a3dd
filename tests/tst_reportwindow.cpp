#include "errorreport.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTranslator>
#include <QtTest>

class tst_ReportWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void initialLook();
    void centring_data();
    void centring();
    void crashPictureSize_data();
    void crashPictureSize();
    void translations_data();
    void translations();

private:
    QStringList arguments() const { return {"error_report", "3.1.4", dir.path(), "client.log", "d.dmp"}; }

    QTemporaryDir dir;
};

static QPushButton *button(QWidget &w, QDialogButtonBox::StandardButton which)
{
    return w.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"))->button(which);
}

static QImage scaled(int side)
{
    return QImage(QStringLiteral(":/gfx/icon/crash_report.png"))
            .scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

void tst_ReportWindow::initTestCase()
{
    QVERIFY(dir.isValid());
}

void tst_ReportWindow::initialLook()
{
    ErrorReport w(arguments());

    QCOMPARE(w.objectName(), QStringLiteral("ErrorReport"));
    QCOMPARE(w.windowTitle(), QStringLiteral("Velmora 3 Error"));
    QCOMPARE(w.size(), QSize(300, 200));
    QVERIFY(w.windowFlags() & Qt::WindowCloseButtonHint);
    QVERIFY(!(w.windowFlags() & (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint)));
    QVERIFY(!w.windowIcon().isNull());
    QCOMPARE(w.pos(), centredTopLeft(QGuiApplication::primaryScreen()->availableGeometry(), QSize(300, 200)));

    auto *info = w.findChild<QLabel *>(QStringLiteral("infoLabel"));
    QVERIFY(info->text().startsWith(QLatin1String("The Velmora 3 client has crashed. There is a debug file which will help\n")));
    QCOMPARE(info->text().count(QLatin1Char('\n')), 2);
    QVERIFY(!info->wordWrap());
    const int iconSize = w.style()->pixelMetric(QStyle::PM_MessageBoxIconSize);
    QCOMPARE(w.findChild<QLabel *>(QStringLiteral("imgLabel"))->pixmap(Qt::ReturnByValue).size(), QSize(iconSize, iconSize));

    auto *edit = w.findChild<QTextEdit *>(QStringLiteral("errorTextEdit"));
    QVERIFY(edit->toPlainText().isEmpty());
    QVERIFY(!edit->isReadOnly());
    auto *question = w.findChild<QLabel *>(QStringLiteral("questionLabel"));
    QCOMPARE(question->text(), QStringLiteral("Do you want to send the error report?"));
    QVERIFY(!question->isHidden());
    QVERIFY(!button(w, QDialogButtonBox::Yes)->isHidden());
    QVERIFY(!button(w, QDialogButtonBox::No)->isHidden());
    QVERIFY(button(w, QDialogButtonBox::Close)->isHidden());
}

void tst_ReportWindow::centring_data()
{
    QTest::addColumn<QRect>("available");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QPoint>("topLeft");

    QTest::newRow("full hd less a panel") << QRect(QPoint(0, 0), QPoint(1919, 1049)) << QSize(300, 200) << QPoint(810, 425);
    QTest::newRow("second screen") << QRect(QPoint(1920, 0), QPoint(3839, 1079)) << QSize(300, 200) << QPoint(2730, 440);
    QTest::newRow("odd sizes truncate") << QRect(QPoint(0, 0), QPoint(100, 50)) << QSize(31, 11) << QPoint(35, 20);
}

void tst_ReportWindow::centring()
{
    QFETCH(QRect, available);
    QFETCH(QSize, size);
    QFETCH(QPoint, topLeft);
    QCOMPARE(centredTopLeft(available, size), topLeft);
}

void tst_ReportWindow::crashPictureSize_data()
{
    QTest::addColumn<int>("extent");
    QTest::addColumn<QImage>("expected");

    QTest::newRow("32: the 32 copy") << 32 << scaled(32);
    QTest::newRow("48: the 64 copy scaled down") << 48 << scaled(64).scaled(48, 48, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    QTest::newRow("16: the 16 copy") << 16 << scaled(16);
}

void tst_ReportWindow::crashPictureSize()
{
    QFETCH(int, extent);
    QFETCH(QImage, expected);
    const QImage picture = crashPicture(extent).toImage();
    QCOMPARE(picture.size(), QSize(extent, extent));
    QCOMPARE(picture.convertToFormat(expected.format()), expected);
}

void tst_ReportWindow::translations_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("yes");

    QTest::newRow("de_DE") << "de_DE" << QStringLiteral("Velmora 3 Fehler") << QStringLiteral("&Ja");
    QTest::newRow("fr_CA falls back to fr") << "fr_CA" << QStringLiteral("Erreur de Velmora 3") << QStringLiteral("&Oui");
    QTest::newRow("no catalogue") << "sv_SE" << QStringLiteral("Velmora 3 Error") << QStringLiteral("&Yes");
}

void tst_ReportWindow::translations()
{
    QFETCH(QString, locale);
    QFETCH(QString, title);
    QFETCH(QString, yes);

    // The same names the program loads at start-up, from the folder beside the binary.
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/translations/");
    QTranslator program, qt;
    program.load(folder + QStringLiteral("error_report_") + locale);
    qt.load(folder + QStringLiteral("qt_") + locale);
    QCoreApplication::installTranslator(&program);
    QCoreApplication::installTranslator(&qt);

    ErrorReport w(arguments());
    QCOMPARE(w.windowTitle(), title);
    QCOMPARE(button(w, QDialogButtonBox::Yes)->text(), yes);
    if (locale != QLatin1String("sv_SE")) {
        QVERIFY(w.findChild<QLabel *>(QStringLiteral("questionLabel"))->text()
                != QLatin1String("Do you want to send the error report?"));
    }
    QCoreApplication::removeTranslator(&qt);
    QCoreApplication::removeTranslator(&program);
}

QTEST_MAIN(tst_ReportWindow)
#include "tst_reportwindow.moc"
