// The reference for start-up time and memory: Qt Widgets and one window, nothing else.
#include <QApplication>
#include <QLabel>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QLabel label(QStringLiteral("The Velmora 3 client has crashed."));
    label.show();
    return app.exec();
}
