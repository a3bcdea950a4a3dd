#include "reportstore.h"

#include "crashdump.h"
#include "minicore.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <quazip.h>
#include <quazipfile.h>

ReportStore::ReportStore(const QString &root)
    : m_root(root)
{
}

bool ReportStore::isReportId(const QString &id)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(QStringLiteral("[0-9]{8}-[0-9a-f]{16}")));
    return pattern.match(id).hasMatch();
}

bool ReportStore::isDump(const QByteArray &head)
{
    if (head.startsWith("VELMORA-CRASH "))
        return true;
    if (head.size() < DumpHeadBytes || !head.startsWith("\x7f" "ELF") || (head[5] != 1 && head[5] != 2))
        return false;
    const auto byte = [&](int i) { return quint8(head[i]); };
    return (head[5] == 1 ? byte(16) | byte(17) << 8 : byte(16) << 8 | byte(17)) == 4;
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
    QString dumpName;
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFile entry(&zip);
        if (!entry.open(QIODevice::ReadOnly)) {
            report.error = QStringLiteral("an entry of the archive cannot be read (error %1)").arg(entry.getZipError());
            return report;
        }
        if (isDump(entry.read(DumpHeadBytes))) {
            dumpName = zip.getCurrentFileName();
            break;
        }
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
