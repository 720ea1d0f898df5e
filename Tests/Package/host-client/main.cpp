// SPDX-License-Identifier: MIT
//
// Uses the installed library of the host as far as it goes without a device. Exits with status 0
// when all answers are right.
#include <HostSession.h>
#include <SeqPacketTransport.h>

#include <chrono>
#include <cstdio>

int main()
{
    using namespace usbhalhost;
    SeqPacketTransport transport("/nowhere/at/all/host");
    const TransferResult connected = transport.connect();
    HostSession session(transport);
    const bool right = connected.status == TransferResult::Status::Closed &&
                       !connected.mayComeLater && session.send(3, "abc") &&
                       session.pendingBytes(3) == 3 && !session.send(10000, "abc") &&
                       session.step() == HostSession::StepResult::Closed;
    std::printf("%s\n%s\n", connected.text.c_str(), session.closeReason().c_str());
    return right ? 0 : 1;
}
