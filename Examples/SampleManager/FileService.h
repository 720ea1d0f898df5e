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
 *              "ERROR <text>\n"   the service cannot go on and discards all until restart()
 *
 * Answers come in the order of the requests' last bytes. Both sides begin anew with each link: the
 * manager drops what was under way, a half received file included, and the host asks afresh.
 */
class FileService : public Service
{
public:
    using Report = std::function<void(const QString &text)>;

    /** Files to send and to write; report is called with a line for each completed file. */
    FileService(QString sendPath, QString receivePath, Report report);

    void restart() override;
    bool takesBytes() const override;
    void receive(const QByteArray &bytes) override;

protected:
    void refill(int limit) override;

private:
    enum class State { Line, Bytes, Failed };

    // An answer that is not yet among the outgoing bytes: a line, or the file when it is empty.
    using Answer = QByteArray;

    int _receiveLine(const QByteArray &bytes, int from);
    int _receiveBytes(const QByteArray &bytes, int from);
    void _obey(const QByteArray &line);
    void _beginStoring(qint64 size);
    void _endStoring();
    void _beginSending();
    bool _readMore(int count);
    void _fail(const QString &reason);

    QString _sendPath;
    QString _receivePath;
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
};

#endif
