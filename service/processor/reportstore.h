#ifndef REPORTSTORE_H
#define REPORTSTORE_H

#include <QByteArray>
#include <QString>

// What the processor takes from a stored archive: the crash dump, if it holds one.
struct StoredReport
{
    enum Status { Read, Missing, Unreadable };

    Status status = Missing;
    QString error;  // for Missing and Unreadable
    bool hasDump = false;
    QByteArray dump;
};

// The raw archives, DATA/raw/YYYYMMDD/<id>.zip, each opened by its report id alone. Entries
// are read into memory under caps, never written out under their own names.
class ReportStore
{
public:
    static constexpr int MaxEntries = 16;
    // How much of an entry tells whether it is the crash dump.
    static constexpr int DumpHeadBytes = 18;

    explicit ReportStore(const QString &root);

    static bool isReportId(const QString &id);
    // The crash dump is the entry that starts as one: a text dump (formats 1 and 2), or an ELF
    // core (format 3), whose e_type is read in the byte order its header gives.
    static bool isDump(const QByteArray &head);
    QString path(const QString &id) const;
    StoredReport read(const QString &id) const;

private:
    QString m_root;
};

#endif
