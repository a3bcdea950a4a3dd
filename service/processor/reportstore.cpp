#include "reportstore.h"

#include "crashdump.h"
#include "minicore.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <quazip.h>
#include <quazipfile.h>

static const char dumpMagic[] = "VELMORA-CRASH ";

ReportStore::ReportStore(const QString &root)
    : m_root(root)
{
}

bool ReportStore::isReportId(const QString &id)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9]{8}-[0-9a-f]{16}$"));
    return pattern.match(id).hasMatch();
}

QString ReportStore::path(const QString &id) const
{
    return isReportId(id) ? QStringLiteral("%1/%2/%3.zip").arg(m_root, id.left(8), id) : QString();
}

StoredReport ReportStore::read(const QString &id) const
{
    StoredReport report;
    const QString file = path(id);
    if (file.isEmpty() || !QFileInfo(file).isFile()) {
        report.error = QStringLiteral("the archive is not in the store");
        return report;
    }
    report.status = StoredReport::Unreadable;
    QuaZip zip(file);
    if (!zip.open(QuaZip::mdUnzip)) {
        report.error = QStringLiteral("the archive cannot be opened as a zip (error %1)").arg(zip.getZipError());
        return report;
    }
    if (zip.getEntriesCount() > MaxEntries) {
        report.error = QStringLiteral("the archive holds %1 entries, more than %2").arg(zip.getEntriesCount()).arg(MaxEntries);
        return report;
    }
    // The dump is the entry that starts as one or, failing that, the first named as one: then
    // the parser says what is wrong with it.
    QString dumpName;
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFile entry(&zip);
        if (!entry.open(QIODevice::ReadOnly)) {
            report.error = QStringLiteral("an entry of the archive cannot be read (error %1)").arg(entry.getZipError());
            return report;
        }
        // A text dump's magic, or an ELF core's header (a minicore).
        const QByteArray start = entry.read(18);
        if (start.startsWith(dumpMagic) || MiniCore::isCore(start)) {
            dumpName = zip.getCurrentFileName();
            break;
        }
        if (dumpName.isEmpty() && (zip.getCurrentFileName().endsWith(QLatin1String(".dmp"))
                                   || zip.getCurrentFileName().endsWith(QLatin1String(".core"))))
            dumpName = zip.getCurrentFileName();
    }
    if (!dumpName.isEmpty() && zip.setCurrentFile(dumpName)) {
        QuaZipFile entry(&zip);
        if (!entry.open(QIODevice::ReadOnly)) {
            report.error = QStringLiteral("the crash dump in the archive cannot be read (error %1)").arg(entry.getZipError());
            return report;
        }
        // One byte over the cap tells the parser that the dump was cut.
        report.dump = entry.read(CrashDump::MaxBytes + 1);
        // Closing checks the CRC of an entry read to its end.
        entry.close();
        if (entry.getZipError() != UNZ_OK) {
            report.error = QStringLiteral("the crash dump in the archive is damaged (error %1)").arg(entry.getZipError());
            return report;
        }
        report.hasDump = true;
    }
    if (zip.getZipError() != UNZ_OK) {
        report.error = QStringLiteral("the archive is damaged (error %1)").arg(zip.getZipError());
        return report;
    }
    report.status = StoredReport::Read;
    return report;
}
