// SPDX-License-Identifier: MIT
#include "FakeNode.h"

#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/types.h>

namespace {

FakeNode::Answer take(QList<FakeNode::Answer> &answers, const FakeNode::Answer &other)
{
    return answers.isEmpty() ? other : answers.takeFirst();
}

long give(const FakeNode::Answer &answer)
{
    if (answer.pause > 0)
        QThread::msleep(answer.pause);
    if (answer.result < 0)
        errno = answer.error;
    return answer.result;
}

QString describe(const FakeNode::Call &call)
{
    if (call.name == "open")
        return "open " + QString::fromUtf8(call.bytes);
    const QString text = QString::fromLatin1(call.name) + ' ' + QString::number(call.descriptor);
    if (call.name == "close")
        return text;
    if (call.name == "ioctl")
        return text + " 0x" + QString::number(call.argument, 16) + ' ' +
               QString::number(call.value);
    return text + ' ' + QString::number(call.argument);
}

} // namespace

FakeNode &FakeNode::instance()
{
    static FakeNode node;
    return node;
}

void FakeNode::reset()
{
    *this = FakeNode();
}

FakeNode::Answer FakeNode::data(const QByteArray &bytes, unsigned long pause)
{
    return {bytes.size(), 0, bytes, pause};
}

QList<FakeNode::Call> FakeNode::calls(const QByteArray &name) const
{
    QList<Call> found;
    std::copy_if(_calls.begin(), _calls.end(), std::back_inserter(found),
                 [&name](const Call &call) { return call.name == name; });
    return found;
}

QStringList FakeNode::record() const
{
    QStringList texts;
    std::transform(_calls.begin(), _calls.end(), std::back_inserter(texts), describe);
    return texts;
}

QStringList FakeNode::record(const QByteArray &name) const
{
    return record().filter(QString::fromLatin1(name) + ' ');
}

long FakeNode::open(const char *path, int flags)
{
    _calls.append({"open", 0, static_cast<unsigned long>(flags), 0, path, nullptr});
    const Answer answer = take(opens, {_nextDescriptor, 0});
    if (answer.result >= 0)
        ++_nextDescriptor;
    return give(answer);
}

long FakeNode::read(int descriptor, void *buffer, size_t size)
{
    _calls.append({"read", descriptor, size, 0, {}, buffer});
    const Answer answer = take(reads, otherReads);
    std::memcpy(buffer, answer.data.constData(), std::min(size, size_t(answer.data.size())));
    return give(answer);
}

long FakeNode::write(int descriptor, const void *bytes, size_t size)
{
    const QByteArray data(static_cast<const char *>(bytes), static_cast<int>(size));
    _calls.append({"write", descriptor, size, 0, data, nullptr});
    return give(take(writes, {static_cast<long>(size)}));
}

long FakeNode::ioctl(int descriptor, unsigned long request, unsigned long value)
{
    _calls.append({"ioctl", descriptor, request, value, {}, nullptr});
    return give(take(ioctls, {}));
}

long FakeNode::close(int descriptor)
{
    _calls.append({"close", descriptor, 0, 0, {}, nullptr});
    return give(take(closes, {}));
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into the C library's.
extern "C" {

int __real_open(const char *path, int flags, ...);
ssize_t __real_read(int descriptor, void *buffer, size_t size);
ssize_t __real_write(int descriptor, const void *bytes, size_t size);
int __real_close(int descriptor);

int __wrap_open(const char *path, int flags, ...);
ssize_t __wrap_read(int descriptor, void *buffer, size_t size);
ssize_t __wrap_write(int descriptor, const void *bytes, size_t size);
int __wrap_ioctl(int descriptor, unsigned long request, ...);
int __wrap_close(int descriptor);

int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (std::strncmp(path, "/dev/", 5) != 0)
        return __real_open(path, flags, mode);
    return static_cast<int>(FakeNode::instance().open(path, flags));
}

ssize_t __wrap_read(int descriptor, void *buffer, size_t size)
{
    FakeNode &node = FakeNode::instance();
    return node.owns(descriptor) ? node.read(descriptor, buffer, size)
                                 : __real_read(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void *bytes, size_t size)
{
    FakeNode &node = FakeNode::instance();
    return node.owns(descriptor) ? node.write(descriptor, bytes, size)
                                 : __real_write(descriptor, bytes, size);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const unsigned value = va_arg(arguments, unsigned);
    va_end(arguments);
    return static_cast<int>(FakeNode::instance().ioctl(descriptor, request, value));
}

int __wrap_close(int descriptor)
{
    FakeNode &node = FakeNode::instance();
    return node.owns(descriptor) ? static_cast<int>(node.close(descriptor))
                                 : __real_close(descriptor);
}
}
