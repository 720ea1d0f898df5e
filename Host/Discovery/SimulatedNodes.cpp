// SPDX-License-Identifier: MIT
#include "SimulatedNodes.h"

#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace usbhalhost {

namespace {

const std::string hostSocket = "/host";
const std::string controlSocket = "/control";
const std::string sequencedPackets = "0005";
const std::string connected = "03";

struct Socket
{
    std::string type;
    std::string state;
    std::string path;
};

// Of the system's list of sockets of this machine, which everybody may read.
bool readSocket(std::istream &list, Socket &socket)
{
    std::string line;
    if (!std::getline(list, line))
        return false;
    std::istringstream words(line);
    std::string skipped;
    socket = {};
    words >> skipped >> skipped >> skipped >> skipped >> socket.type >> socket.state >> skipped;
    std::getline(words >> std::ws, socket.path);
    return true;
}

bool endsWith(const std::string &text, const std::string &end)
{
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

std::vector<SimulatedNode> findSimulatedNodes()
{
    std::map<std::string, bool> hosts; // by folder: whether one is connected
    std::set<std::string> controlled;
    std::ifstream list("/proc/net/unix");
    Socket socket;
    while (readSocket(list, socket)) {
        const std::string &path = socket.path;
        if (endsWith(path, controlSocket))
            controlled.insert(path.substr(0, path.size() - controlSocket.size()));
        if (endsWith(path, hostSocket) && socket.type == sequencedPackets)
            hosts[path.substr(0, path.size() - hostSocket.size())] |= socket.state == connected;
    }
    std::vector<SimulatedNode> nodes;
    for (const auto &[folder, isTaken] : hosts) {
        if (controlled.count(folder) > 0)
            nodes.push_back({folder, isTaken});
    }
    return nodes;
}

} // namespace usbhalhost
