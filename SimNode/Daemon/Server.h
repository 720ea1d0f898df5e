// SPDX-License-Identifier: MIT
#ifndef SIMNODE_SERVER_H
#define SIMNODE_SERVER_H

#include "FileDescriptor.h"
#include "Node.h"
#include "NodeDirectory.h"
#include "ScriptRunner.h"

#include <cstdint>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace simnode {

/// Carries packets between the folder's sockets and the node, in one poll loop.
class Server
{
public:
    /// Listens on the three sockets of `directory`, after the script's first commands were
    /// executed. Throws std::runtime_error if a socket cannot be made. The references must outlive
    /// the server.
    Server(const NodeDirectory &directory, Node &node, ScriptRunner &script);

    /// Waits for the next events and serves them. True if `signals` became readable. Throws
    /// std::runtime_error if the folder is gone.
    bool serveOnce(int signals);

private:
    enum class Role { Device, Descriptor, Control, RefusedHost };

    struct Connection
    {
        FileDescriptor socket;
        Role role;
        std::uint32_t handle = 0; // of a Descriptor, or of that which the Device's call is on
    };

    using ConnectionId = Node::CallId;
    using Connections = std::map<ConnectionId, Connection>;

    // In the order of their polling: the fixed entries, the connections that have nothing to do
    // with the device, the host's two, and the device's.
    struct PollSet
    {
        static constexpr std::size_t signals = 0;
        static constexpr std::size_t directory = 1;
        static constexpr std::size_t deviceListener = 2;
        static constexpr std::size_t controlListener = 3;
        static constexpr std::size_t firstControl = 4;

        std::vector<pollfd> entries;
        std::vector<ConnectionId> controls;
        std::vector<ConnectionId> devices;

        std::size_t hostListener() const { return firstControl + controls.size(); }
        std::size_t host() const { return hostListener() + 1; }
        std::size_t firstDevice() const { return host() + 1; }
        short events(std::size_t index) const { return entries[index].revents; }
    };

    static bool isOfDevice(Role role);
    PollSet pollSet(int signals) const;
    int waitTime() const;
    std::optional<Node::Time> acceptDeadline() const;
    bool hasRoomFor(Role role) const;
    FileDescriptor accept(const FileDescriptor &listener);
    void acceptCaller(const FileDescriptor &listener, Role role);
    void acceptHost();
    void refuseHost(FileDescriptor socket);
    void add(FileDescriptor socket, Role role);
    void serveHost(short events);
    void takeTransfer();
    void serve(ConnectionId id, short events);
    void serveDevice(ConnectionId id, std::string_view packet);
    void serveControl(ConnectionId id, std::string_view packet);
    void end(ConnectionId id);
    void release(std::uint32_t handle);
    void forget(Connections::iterator connection);
    void dropHost();
    void settle();
    void followCable();
    void sendTransfers();
    void sendReplies();
    void sendReply(Node::Reply reply);
    void becomeDescriptor(Connection &connection);
    void showWaitingTransfers();

    const NodeDirectory &_directory;
    Node &_node;
    ScriptRunner &_script;
    FileDescriptor _deviceListener;
    FileDescriptor _controlListener;
    FileDescriptor _hostListener;
    FileDescriptor _host;
    Connections _connections;
    std::set<std::uint32_t> _readable;   // descriptors that hold the packet of a waiting transfer
    std::map<Role, std::size_t> _counts; // of the connections
    Node::Time _acceptAgain{};
    ConnectionId _nextId = 1;
    std::string _buffer;
};

} // namespace simnode

#endif
