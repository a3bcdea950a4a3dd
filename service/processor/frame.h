#ifndef FRAME_H
#define FRAME_H

#include <QByteArray>
#include <QJsonArray>
#include <QString>
#include <QVector>

// One line of a symbolized stack, innermost first. A frame whose code was inlined gives one
// line per inlined function, all with its number, the function they were inlined into last.
struct Frame
{
    int index = 0;
    quint64 address = 0;
    bool hasModule = false;
    QString module;      // file name, without its folder
    quint64 offset = 0;  // address minus the module's load address
    QByteArray buildId;  // lowercase hex, empty when the dump has none
    QString function;    // empty where no debug information or symbol was found
    QString file;
    int line = 0;        // 0 when unknown
    bool inlined = false;
    bool fromSymbolTable = false;  // named by the module's symbol table alone: no file or line
    // What the module's own file calls the address, whatever debug file the server has:
    // empty where its symbol tables name nothing there.
    QString symbol;
    // Its function's exception table has no entry for the call it made: an exception reaching
    // it ends the program. gcc compiles noexcept functions so.
    bool refusesExceptions = false;
};

QJsonArray framesToJson(const QVector<Frame> &frames);
QVector<Frame> framesFromJson(const QJsonArray &array);

#endif
