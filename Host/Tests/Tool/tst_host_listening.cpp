// SPDX-License-Identifier: MIT
#include "Failure.h"
#include "ListeningSocket.h"

#include <QtTest>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

sockaddr_in addressIn(int family, int port)
{
    sockaddr_in address{};
    address.sin_family = static_cast<sa_family_t>(family);
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// What every name resolves to here.
class Answer
{
public:
    void set(const sockaddr_in &first, const sockaddr_in &second)
    {
        _addresses = {first, second};
        for (std::size_t each = 0; each < _nodes.size(); ++each) {
            _nodes[each] = {};
            _nodes[each].ai_family = _addresses[each].sin_family;
            _nodes[each].ai_addr = reinterpret_cast<sockaddr *>(&_addresses[each]);
            _nodes[each].ai_addrlen = sizeof _addresses[each];
        }
        _nodes[0].ai_next = &_nodes[1];
    }
    addrinfo *first() { return &_nodes[0]; }

private:
    std::array<sockaddr_in, 2> _addresses{};
    std::array<addrinfo, 2> _nodes{};
};

Answer answer;

} // namespace

// These stand before those of the C library.
extern "C" int getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **found)
{
    *found = answer.first();
    return 0;
}

extern "C" void freeaddrinfo(addrinfo *) {}

class HostListeningTest : public QObject
{
    Q_OBJECT

private slots:
    void theFirstAddressThatIsFreeIsTaken();
    void withoutAnyTheLastFailureIsTold();

private:
    static ForwardAddress named() { return {{}, "gadget", 0, 1}; }
};

void HostListeningTest::theFirstAddressThatIsFreeIsTaken()
{
    answer.set(addressIn(AF_UNSPEC, 0), addressIn(AF_INET, 0));
    const ListeningSocket socket(named());
    QCOMPARE(socket.name().substr(0, 10), std::string("127.0.0.1:"));
    QVERIFY(!socket.isCalled());
}

void HostListeningTest::withoutAnyTheLastFailureIsTold()
{
    sockaddr_in ofAnother = addressIn(AF_INET, 0);
    ofAnother.sin_addr.s_addr = inet_addr("192.0.2.1");
    answer.set(ofAnother, addressIn(AF_MAX, 0));
    try {
        const ListeningSocket socket(named());
        QFAIL("listens on no address");
    } catch (const Failure &failure) {
        QCOMPARE(std::string(failure.what()),
                 "cannot listen on gadget:0: " + std::string(std::strerror(EAFNOSUPPORT)) +
                     "; choose another local port, or 0 for a free one");
    }
}

QTEST_APPLESS_MAIN(HostListeningTest)
#include "tst_host_listening.moc"
