// SPDX-License-Identifier: MIT
#ifndef SIMNODE_FILEDESCRIPTOR_H
#define SIMNODE_FILEDESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace simnode {

/// Owns a file descriptor and closes it.
class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : _number(number) {}
    FileDescriptor(FileDescriptor &&other) noexcept : _number(std::exchange(other._number, -1)) {}
    FileDescriptor &operator=(FileDescriptor &&other) noexcept
    {
        std::swap(_number, other._number);
        other.reset();
        return *this;
    }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return _number; }
    bool isOpen() const { return _number >= 0; }
    void reset()
    {
        if (_number >= 0)
            ::close(std::exchange(_number, -1));
    }

private:
    int _number = -1;
};

} // namespace simnode

#endif
