// A channel as a document, and documents as text.
#pragma once

#include <ipc/qel_ipc_inspect.hpp>

#include <string>
#include <vector>

#include "command.hpp"

namespace qel_tool {

// A look at the channel 'name'; throws Unreadable if there is none.
void look_at(const std::string& name, qel::ChannelLook& look);
void look_at_header(const std::string& name, qel::ChannelLook& look);

// The names of all objects below the prefix that are channels, in order.
std::vector<std::string> find_channels(const std::string& root);

// {name, state, levels ..., end_points: [...]}.
Json describe_channel(const std::string& name, const qel::ChannelLook& look);
// The same with ledger, rings, held locks and findings.
Json describe_in_full(const std::string& name, const qel::ChannelLook& look);
Json describe_findings(const qel::ChannelLook& look);

void print_list(const std::vector<Json>& channels);
void print_channel(const Json& channel);

}  // namespace qel_tool
