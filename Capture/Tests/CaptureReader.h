// SPDX-License-Identifier: MIT
#ifndef CAPTUREREADER_H
#define CAPTUREREADER_H

#include <QFile>
#include <QString>
#include <QStringList>

#include <cstring>
#include <pcap/pcap.h>
#include <pcap/usb.h>
#include <string>
#include <vector>

namespace capture {

struct Record
{
    timeval time;
    pcap_usb_header_mmapped header;
    std::string bytes;
};

/// The records of a capture. Ends the test program when it is none of this kind.
inline std::vector<Record> recordsOf(const QString &path)
{
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t *const file = pcap_open_offline(QFile::encodeName(path).constData(), error);
    if (file == nullptr || pcap_datalink(file) != DLT_USB_LINUX_MMAPPED)
        qFatal("no capture of usbmon: %s %s", qPrintable(path), error);
    std::vector<Record> records;
    pcap_pkthdr *head = nullptr;
    const u_char *bytes = nullptr;
    int found = 0;
    while ((found = pcap_next_ex(file, &head, &bytes)) == 1) {
        Record record = {head->ts, {}, {}};
        if (head->caplen != head->len || head->len < sizeof record.header)
            qFatal("a record of %u bytes in %s", head->len, qPrintable(path));
        std::memcpy(&record.header, bytes, sizeof record.header);
        record.bytes.assign(reinterpret_cast<const char *>(bytes) + sizeof record.header,
                            head->len - sizeof record.header);
        records.push_back(record);
    }
    if (found != PCAP_ERROR_BREAK)
        qFatal("%s is damaged: %s", qPrintable(path), pcap_geterr(file));
    pcap_close(file);
    return records;
}

/// A record in words, such as "S out -115 5 hello": event, direction, status, length and bytes.
inline QString told(const Record &record)
{
    const bool isIn = (record.header.endpoint_number & URB_TRANSFER_IN) != 0;
    return QString("%1 %2 %3 %4 %5")
        .arg(QString(QChar(record.header.event_type)), QString(isIn ? "in" : "out"),
             QString::number(record.header.status), QString::number(record.header.urb_len),
             QString::fromStdString(record.bytes))
        .trimmed();
}

/// All records of a capture in words.
inline QStringList toldOf(const QString &path)
{
    QStringList lines;
    for (const Record &record : recordsOf(path))
        lines.append(told(record));
    return lines;
}

} // namespace capture

#endif
