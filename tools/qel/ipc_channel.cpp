// Channels as documents: everything that text and JSON show is read off a ChannelLook here, once.
#include "ipc_channel.hpp"

#include <qel/cerrno.h>

#include <map>

#include "objects.hpp"
#include "table.hpp"

namespace qel_tool {
namespace {

using qel::ChannelLook;
using qel::EndPointRecord;
using qel::EndPointState;
using qel::kMaxEndPoints;

template <class State>
std::string name_of(const std::map<std::uint32_t, const char*>& names, State state) {
    auto number = static_cast<std::uint32_t>(state);
    auto found = names.find(number);
    return found != names.end() ? found->second : fmt::format("0x{:x}", number);
}

std::string channel_state(const qel::IpcHeader& header) {
    static const std::map<std::uint32_t, const char*> names{
        {0, "new"}, {1, "waits for server"}, {2, "active"}, {3, "destroyed"}};
    if (header.magic == qel::HeaderMagic::claimed) return "being set up";
    return name_of(names, header.state);
}

std::string end_point_state(const EndPointRecord& record) {
    static const std::map<std::uint32_t, const char*> names{
        {0, "free"}, {1, "open"}, {2, "owner down"}, {3, "restarted"}, {0x8000, "closed"}};
    return name_of(names, record.ep_state);
}

bool in_use(const EndPointRecord& record) {
    return record.ep_state != EndPointState::free;
}

Json describe_end_point(std::uint32_t ep, const EndPointRecord& record) {
    return {{"ep", ep},
            {"role", ep == 0 ? "server" : "client"},
            {"state", end_point_state(record)},
            {"pid", record.pid},
            {"alive", qel::is_alive(record.pid)},
            {"app_id", record.app_id[1]},
            {"restarts", record.restarts},
            {"closing", record.closing != 0},
            {"restricted", record.restricted != 0},
            {"alloc", record.alloc},
            {"credits", record.reserved_credits},
            {"sent", record.sent},
            {"received", record.received},
            {"flow_off", record.hw_count},
            {"flow_on", record.lw_count},
            {"input_signals", record.msg_input},
            {"signals", record.sep.sep_flags}};
}

Json describe_ring(const ChannelLook& look, std::uint32_t ep) {
    int error = 0;
    const qel_ring* ring = look.ring(ep, error);
    if (ring == nullptr) return {{"ep", ep}, {"error", cerr_strerror(static_cast<cerrno>(error))}};
    const qel::RingHeader& header = *ring->hdr;
    return {{"ep", ep},
            {"frozen", header.frozen != 0},
            {"produced", header.prod_count},
            {"consumed", header.cons_count},
            {"free", header.free_count},
            {"prod_idx", header.prod_idx},
            {"cons_idx", header.cons_idx},
            {"rel_idx", header.rel_idx},
            {"free_idx", header.free_idx}};
}

Json describe_ledger(const qel::IpcHeader& header) {
    return {{"producers", header.prod_count}, {"quota", header.quota},
            {"high_water", header.hw},        {"low_water", header.lw},
            {"overflow", header.ofp_quota},   {"overflow_used", header.ofp_used}};
}

template <class Describe>
Json for_end_points(const ChannelLook& look, bool with_server, Describe describe) {
    Json all = Json::array();
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (in_use(look.header().eps[ep]) || (ep == 0 && with_server)) all.push_back(describe(ep));
    return all;
}

Json describe_held(const ChannelLook& look) {
    Json held = Json::array();
    look.for_each_held([&](const qel::HeldLock& lock) {
        held.push_back(
            {{"lock", lock.name}, {"ep", lock.ep}, {"thread", lock.holder}, {"alive", lock.lives}});
    });
    return held;
}

std::uint64_t sum(const Json& channel, const char* field) {
    std::uint64_t total = 0;
    for (const Json& ep : channel["end_points"]) total += ep[field].get<std::uint64_t>();
    return total;
}

void print_findings(const Json& channel) {
    for (const Json& lock : channel["held_locks"])
        fmt::print("held: {} of end point {} by thread {}{}\n", text_of(lock["lock"]), text_of(lock["ep"]),
                   text_of(lock["thread"]), lock["alive"].get<bool>() ? "" : ", which is gone");
    for (const Json& finding : channel["findings"])
        fmt::print("FINDING: {} (end point {}): {}\n", text_of(finding["part"]), text_of(finding["ep"]),
                   text_of(finding["text"]));
    if (!channel["findings"].empty()) return;
    fmt::print("{}\n", channel["settled"].get<bool>()
                           ? "checked: ledger, end points and rings agree"
                           : "checked: bounds only, as the channel is busy; nothing found");
}

void look(const std::string& name, int error) {
    if (error == 0) return;
    throw Unreadable{
        fmt::format("channel \"{}\": {}", printable(name),
                    error == EBADF ? "this is no channel" : cerr_strerror(static_cast<cerrno>(error)))};
}

}  // namespace

void look_at(const std::string& name, ChannelLook& out) {
    look(name, out.read(name.c_str()));
}

void look_at_header(const std::string& name, ChannelLook& out) {
    look(name, out.read_header(name.c_str()));
}

std::vector<std::string> find_channels(const std::string& root) {
    std::vector<std::string> found = find_objects(root);
    ChannelLook look;
    std::erase_if(found, [&](const std::string& name) { return look.read_header(name.c_str()) != 0; });
    return found;
}

Json describe_channel(const std::string& name, const ChannelLook& look) {
    const qel::IpcHeader& header = look.header();
    Json channel{{"name", name},
                 {"state", channel_state(header)},
                 {"ext_cs", header.ext_cs != 0},
                 {"max_end_points", header.max_eps},
                 {"messages", header.total_msg},
                 {"message_size", header.msg_size},
                 {"heap_size", header.heap_size},
                 {"trace_id", header.trace_id},
                 {"trace_level", header.trace_level},
                 {"audit_level", header.audit_level},
                 {"core_dump", header.core_dump != 0}};
    channel["end_points"] =
        for_end_points(look, false, [&](std::uint32_t ep) { return describe_end_point(ep, header.eps[ep]); });
    channel["out"] = sum(channel, "alloc");
    channel["credits"] = sum(channel, "credits");
    return channel;
}

Json describe_in_full(const std::string& name, const ChannelLook& look) {
    Json channel = describe_channel(name, look);
    channel["ledger"] = describe_ledger(look.header());
    channel["rings"] = for_end_points(look, true, [&](std::uint32_t ep) { return describe_ring(look, ep); });
    channel["held_locks"] = describe_held(look);
    channel["settled"] = look.settled();
    channel["findings"] = describe_findings(look);
    return channel;
}

Json describe_findings(const ChannelLook& look) {
    Json findings = Json::array();
    look.check([&](const qel::Finding& finding) {
        std::string text = finding.text;
        if (finding.part == std::string_view{"lock"})
            text += finding.holder != 0 ? fmt::format(" is held by thread {}, which is gone", finding.holder)
                                        : " is held by a thread that left no name";
        findings.push_back({{"part", finding.part}, {"ep", finding.ep}, {"text", text}});
    });
    return findings;
}

void print_list(const std::vector<Json>& channels) {
    for (const Json& channel : channels) {
        fmt::print("{}: {}, {} of {} messages out, {} credits\n", text_of(channel["name"]),
                   text_of(channel["state"]), text_of(channel["out"]), text_of(channel["messages"]),
                   text_of(channel["credits"]));
        print_table(channel["end_points"], {{"EP", "ep"},
                                            {"ROLE", "role"},
                                            {"STATE", "state"},
                                            {"PID", "pid"},
                                            {"ALIVE", "alive"},
                                            {"OUT", "alloc"},
                                            {"CREDITS", "credits"}});
    }
    if (channels.empty()) fmt::print("no channels\n");
}

void print_channel(const Json& channel) {
    fmt::print("channel {}: {}\n", text_of(channel["name"]), text_of(channel["state"]));
    for (const char* field : {"ext_cs", "max_end_points", "messages", "message_size", "heap_size", "trace_id",
                              "trace_level", "audit_level", "core_dump"})
        fmt::print("  {:<16} {}\n", field, text_of(channel[field]));
    fmt::print("ledger\n");
    for (const auto& [field, value] : channel["ledger"].items())
        fmt::print("  {:<16} {}\n", field, text_of(value));
    fmt::print("end points\n");
    print_table(channel["end_points"], {{"EP", "ep"},
                                        {"ROLE", "role"},
                                        {"STATE", "state"},
                                        {"PID", "pid"},
                                        {"ALIVE", "alive"},
                                        {"APP_ID", "app_id"},
                                        {"RESTARTS", "restarts"},
                                        {"OUT", "alloc"},
                                        {"CREDITS", "credits"},
                                        {"RESTRICTED", "restricted"},
                                        {"SENT", "sent"},
                                        {"RECEIVED", "received"}});
    fmt::print("rings\n");
    print_table(channel["rings"], {{"EP", "ep"},
                                   {"PRODUCED", "produced"},
                                   {"CONSUMED", "consumed"},
                                   {"FREE", "free"},
                                   {"PROD_IDX", "prod_idx"},
                                   {"CONS_IDX", "cons_idx"},
                                   {"REL_IDX", "rel_idx"},
                                   {"FREE_IDX", "free_idx"},
                                   {"FROZEN", "frozen"}});
    print_findings(channel);
}

}  // namespace qel_tool
