// SPDX-License-Identifier: MIT
#include "ByteQueue.h"

#include <algorithm>
#include <utility>

namespace usbhalhost {

std::string_view ByteQueue::front(std::size_t count) const
{
    return std::string_view(_bytes).substr(_head, count);
}

void ByteQueue::removeFront(std::size_t count)
{
    _head += std::min(count, size());
    // Moving the rest only when it is the smaller half keeps the cost in proportion.
    if (_head >= size()) {
        _bytes.erase(0, _head);
        _head = 0;
    }
}

std::string ByteQueue::takeAll()
{
    std::string bytes = std::move(_bytes);
    bytes.erase(0, _head);
    _bytes.clear();
    _head = 0;
    return bytes;
}

} // namespace usbhalhost
