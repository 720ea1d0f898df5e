// SPDX-License-Identifier: MIT
#ifndef FILESERVICE_H
#define FILESERVICE_H

#include "Service.h"

#include <QFile>
#include <QQueue>
#include <QSaveFile>

#include <functional>
#include <memory>

/**
 * Sends one file and stores another. Both directions are byte streams of one-line ASCII headers,
 * some of them followed by bytes:
 *
 *     host:    "SEND\n"           asks for the file
 *              "FILE <n>\n"       followed by n bytes, which are to be stored
 *     manager: "FILE <n>\n"       followed by the n bytes of the file, answers "SEND"
 *              "STORED <n>\n"     answers "FILE" when its n bytes are safely stored
 *              "ERROR <text>\n"   answers what cannot be done, and any other line
 *
 * A file that cannot be stored is answered at once; its bytes are to follow all the same. A file
 * that turns out to be shorter than announced is filled up with zero bytes, and an error follows
 * it.
 *
 * Answers come in the order of the requests' last bytes. Both sides begin anew with each link: the
 * manager drops what was under way, a half received file included, and the host asks afresh.
 */
class FileService : public Service
{
public:
    using Report = std::function<void(const QString &text)>;

    /**
     * Files to send and to write, and the most bytes that the host may have stored; report is
     * called with a line for each completed file and each error.
     */
    FileService(QString sendPath, QString receivePath, qint64 largestFile, Report report);

    void restart() override;
    bool takesBytes() const override;
    void receive(const QByteArray &bytes) override;

protected:
    void refill(int limit) override;

private:
    // Skipped are the bytes of a file that is not stored, and the rest of a line that is too long.
    enum class State { Line, SkippedLine, Bytes, SkippedBytes };

    // An answer that is not yet among the outgoing bytes: a line, or the file when it is empty.
    using Answer = QByteArray;

    int _receiveLine(const QByteArray &bytes, int from);
    int _receiveBytes(const QByteArray &bytes, int from);
    void _endLine();
    void _obey(const QByteArray &line);
    void _beginStoring(qint64 size);
    void _store(const char *bytes, int count);
    void _endStoring();
    void _refuseFile(const QString &reason);
    void _beginSending();
    void _readMore(int count);
    void _endSending();
    QByteArray _error(const QString &reason) const;

    QString _sendPath;
    QString _receivePath;
    qint64 _largestFile;
    Report _report;

    State _state = State::Line;
    QByteArray _line;
    std::unique_ptr<QSaveFile> _storing;
    qint64 _storeSize = 0;
    qint64 _storeLeft = 0;

    QQueue<Answer> _answers;
    QFile _sending;
    qint64 _sendSize = 0;
    qint64 _sendLeft = 0;
    bool _isShort = false;
};

#endif
