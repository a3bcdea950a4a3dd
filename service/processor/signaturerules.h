#ifndef SIGNATURERULES_H
#define SIGNATURERULES_H

#include "frame.h"

#include <QSet>
#include <QStringList>

// Reduces a symbolized stack to the signature that groups its crash with others. Frames are
// matched by their text (the function without its parameters, or module@0xoffset) against
// three lists, each a file of names, one a line, a trailing * matching any rest:
// sentinel.txt (the signature starts at the innermost such frame), skip.txt (left out) and
// prefix.txt (frames that alone say nothing: the signature goes on to the next). The lists
// carry one version number between them, recorded with every report grouped by them.
class SignatureRules
{
public:
    static constexpr int MaxLength = 255;
    static const QString NoDumpSignature;
    static const QString NoFramesSignature;

    bool load(const QString &folder, QString *error);
    int version() const { return m_version; }
    QString signature(const QVector<Frame> &frames) const;

    static QString frameText(const Frame &frame);

private:
    struct List
    {
        QSet<QString> names;
        QStringList prefixes;

        bool matches(const QString &text) const;
    };

    bool loadList(const QString &path, List *list, int *version, QString *error);

    int m_version = 0;
    List m_skip;
    List m_prefix;
    List m_sentinel;
};

#endif
