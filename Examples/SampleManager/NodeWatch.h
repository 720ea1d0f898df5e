// SPDX-License-Identifier: MIT
#ifndef NODEWATCH_H
#define NODEWATCH_H

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>

#include <sys/types.h>
#include <tuple>

/**
 * Tells when the device node comes and goes. Its folder is watched by inotify, which costs nothing
 * while nothing happens; the node itself is not opened.
 */
class NodeWatch : public QObject
{
    Q_OBJECT

public:
    explicit NodeWatch(const QString &path, QObject *parent = nullptr);

    /** Looks now, for changes that inotify does not tell of; the signals are emitted from here. */
    void look();

    bool isPresent() const { return _whyMissing.isEmpty(); }

    /** The system's reason why the node cannot be used, empty when it can. */
    QString whyMissing() const { return _whyMissing; }

    QString path() const { return _path; }

signals:
    void appeared();

    /** Also when another node has taken the place of the one before; appeared() follows then. */
    void vanished();

private:
    using Identity = std::tuple<dev_t, ino_t, dev_t>;

    QString _reason() const;
    Identity _identityNow() const;

    QString _path;
    QString _whyMissing;
    Identity _identity;
    QFileSystemWatcher _folder;
};

#endif
