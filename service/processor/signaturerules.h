#ifndef SIGNATURERULES_H
#define SIGNATURERULES_H

#include "frame.h"

#include <QRegularExpression>
#include <QSet>
#include <QStringList>

// Reduces a symbolized stack to the signature that groups its crash with others: a fixed
// order of small rules (signaturerules.cpp lists them), each driven by a list in the rules
// folder that a vendor edits without touching code. The lists carry one version number
// between them, recorded with every report grouped by them.
class SignatureRules
{
public:
    static constexpr int MaxLength = 255;
    static const QString NoDumpSignature;
    static const QString NoFramesSignature;
    static const QString NoModuleToken;

    bool load(const QString &folder, QString *error);
    int version() const { return m_version; }
    QString signature(const QVector<Frame> &frames) const;

    // Names, one a line; a trailing * matches any rest. With values: "name => value".
    struct List
    {
        QSet<QString> names;
        QStringList prefixes;
        QHash<QString, QString> values;

        bool matches(const QString &text) const;
        QString value(const QString &text) const;
    };
    struct Rename
    {
        QRegularExpression pattern;
        QString replacement;
    };
    // The lists of the rules folder, one per file.
    struct Lists
    {
        List libraries;
        QVector<Rename> renames;
        List sentinel;
        List kinds;
        List skip;
        List prefix;
    };

private:
    bool loadFile(const QString &name, QStringList *lines, QString *error);
    bool loadList(const QString &name, List *list, bool withValues, QString *error);
    bool loadRenames(QString *error);

    QString m_folder;
    int m_version = 0;
    QString m_versionFile;
    Lists m_lists;
};

#endif
