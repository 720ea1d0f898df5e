// SPDX-License-Identifier: MIT
#include "ListCommand.h"

#include "ControlChannel.h"
#include "SimulatedNodes.h"
#include "UsbDevices.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

using namespace usbhalhost;

namespace {

struct Row
{
    std::string name;
    std::string id = {};
    std::string serial = {};
    std::string speed = {};
    std::string holder = {};
    std::string description = {};
};

Row rowOf(const UsbDevice &device)
{
    std::array<char, 16> id{};
    std::snprintf(id.data(), id.size(), "%04x:%04x", unsigned{device.vendor},
                  unsigned{device.product});
    return {"usb:" + device.busPath, id.data(),         device.serial, device.speed,
            device.holder,           device.description};
}

Row rowOf(const SimulatedNode &node)
{
    return {"sim:" + node.folder, {}, {}, {}, node.isTaken ? "another host" : "", "simulated node"};
}

void nameForwards(std::vector<Row> &rows)
{
    for (const RunningForward &forward : findForwards()) {
        for (Row &row : rows) {
            if (row.name == forward.place)
                row.holder = "usbhal forward (process " + std::to_string(forward.process) + ")";
        }
    }
}

std::vector<Row> allRows()
{
    std::vector<Row> rows;
    for (const UsbDevice &device : findUsbDevices())
        rows.push_back(rowOf(device));
    for (const SimulatedNode &node : findSimulatedNodes())
        rows.push_back(rowOf(node));
    nameForwards(rows);
    return rows;
}

nlohmann::json valueOf(const std::string &text)
{
    return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

// What a device says of itself may be anything; what is no text is shown as such.
void printJson(const std::vector<Row> &rows)
{
    nlohmann::json list = nlohmann::json::array();
    for (const Row &row : rows) {
        list.push_back({{"name", row.name},
                        {"id", valueOf(row.id)},
                        {"serial", valueOf(row.serial)},
                        {"speedMbit", valueOf(row.speed)},
                        {"holder", valueOf(row.holder)},
                        {"description", valueOf(row.description)}});
    }
    std::cout << list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void printText(const std::vector<Row> &rows)
{
    for (const Row &row : rows) {
        std::cout << row.name;
        for (const std::string &field : {row.id, row.serial, row.description})
            std::cout << (field.empty() ? "" : "  " + field);
        std::cout << (row.speed.empty() ? "" : "  " + row.speed + " Mbit/s")
                  << (row.holder.empty() ? "  free" : "  held by " + row.holder) << '\n';
    }
}

} // namespace

void listDevices(bool asJson)
{
    const std::vector<Row> rows = allRows();
    if (asJson)
        printJson(rows);
    else
        printText(rows);
    std::cout.flush();
}
