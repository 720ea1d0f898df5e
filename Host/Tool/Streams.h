// SPDX-License-Identifier: MIT
#ifndef USBHAL_STREAMS_H
#define USBHAL_STREAMS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/**
 * Opens /dev/null in place of standard streams that the caller has closed: the next file or socket
 * would become a standard stream otherwise.
 */
void fillStandardStreams();

/** Bytes that are read without ever waiting for them. A failure to read is a Failure. */
class Input
{
public:
    /** Opens a file, or standard input for "-". Failure when that cannot be done. */
    explicit Input(const std::string &name);
    /** Takes over a descriptor that is open. */
    Input(int fd, std::string name);
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    /** What can be read at once, at most so many bytes. */
    std::string take(std::size_t most);
    /** Waits for bytes or the end, so long at most. */
    void wait(std::chrono::milliseconds limit) const;
    bool isEnded() const { return _ended; }
    /** Whether the other end of a socket has ended it, even when bytes before that are not read. */
    bool endComes() const;
    /** The size of a regular file; nothing is known of other inputs. */
    std::optional<std::uint64_t> size() const;
    const std::string &name() const { return _name; }

private:
    std::string _name;
    int _fd;
    bool _ended = false;
};

/**
 * Bytes that are written without ever waiting for a reader; what cannot be written yet is kept. A
 * failure to write is a Failure.
 */
class Output
{
public:
    /** Opens a file, emptying it, or standard output for "-". Failure when that cannot be done. */
    explicit Output(const std::string &name);
    /** Takes over a descriptor that is open. */
    Output(int fd, std::string name);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /** Takes the bytes over and writes what can be written at once. */
    void put(const std::string &bytes);
    /** Writes what is kept, waiting for the reader at most so many ms. */
    void flush(std::chrono::milliseconds limit);
    /** So much is kept that no more should come. */
    bool isFull() const;
    bool isEmpty() const { return _kept.empty(); }
    /** Bytes that are kept. */
    std::size_t size() const { return _kept.size(); }

private:
    bool _write();

    std::string _name;
    int _fd;
    std::string _kept;
};

#endif
