// qel if: the interfaces of this machine, as the interface service sees them.
//
// The tool binds to the service as a daemon does. What a library logs goes into shared memory of the tool's
// own, below a prefix that goes with it: a look at interfaces leaves nothing behind.
#include <qel/if.h>
#include <qel/if_event.h>
#include <qel/ppm.h>

#include <unistd.h>

#include <array>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "command.hpp"
#include "objects.hpp"
#include "outlet.hpp"
#include "table.hpp"

namespace qel_tool {
namespace {

// Shared memory of this process's own, for as long as it lives.
class OwnRoot {
  public:
    explicit OwnRoot(const std::string& root) : prefix_(fmt::format("{}qel-if.{}.", root, getpid())) {
        if (qel_ppm_set_string("qel.shm.root", prefix_.c_str()) != 0)
            throw Unreadable{"can't set the prefix of shared memory"};
    }
    OwnRoot(const OwnRoot&) = delete;
    OwnRoot& operator=(const OwnRoot&) = delete;
    ~OwnRoot() {
        std::error_code gone;
        for (const std::string& name : find_objects(prefix_))
            std::filesystem::remove("/dev/shm/" + prefix_ + name, gone);
    }

  private:
    std::string prefix_;
};

[[noreturn]] void fail(const char* what, cerrno error) {
    throw Unreadable{fmt::format("{}: {}", what, cerr_strerror(error))};
}

class Client {
  public:
    explicit Client(qel_dm_handle dispatcher = 0) {
        qel_if_init_attr attr{&scope_, dispatcher};
        if (cerrno error = qel_if_init(&app_, "qel if", &attr); error != 0)
            fail("the interface service", error);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { static_cast<void>(qel_if_destroy(&app_)); }  // it is bound
    std::uint32_t app() const { return app_; }

  private:
    std::uint32_t app_ = 0, scope_ = 0;
};

// --- Descriptions

using Handles = std::vector<std::uint64_t>;
using Read = cerrno (*)(std::uint32_t, std::uint64_t, std::uint32_t*);
using BulkRead = cerrno (*)(std::uint32_t, const std::uint64_t*, std::uint32_t*, cerrno*, std::size_t);
using NameOf = const char* (*)(std::uint32_t);

// A field of a description: a number, or the name of one.
struct Field {
    const char* name;
    Read read;
    BulkRead bulk;  // null where only "show" has it
    NameOf name_of;
};
constexpr std::array kFields{
    Field{"type", qel_if_get_type, qel_if_bulk_get_type, qel_if_get_printable_type},
    Field{"encap", qel_if_get_encap, qel_if_bulk_get_encap, qel_if_get_printable_encap},
    Field{"oper", qel_if_get_oper_state, qel_if_bulk_get_oper_state, qel_if_get_printable_oper_state},
    Field{"admin", qel_if_get_admin_state, qel_if_bulk_get_admin_state, qel_if_get_printable_admin_state},
    Field{"mtu", qel_if_get_mtu, qel_if_bulk_get_mtu, nullptr},
    Field{"speed", qel_if_get_speed, qel_if_bulk_get_speed, nullptr},
    Field{"speed_max", qel_if_get_speed_max, nullptr, nullptr},
    Field{"tx_bandwidth", qel_if_get_tx_bandwidth, nullptr, nullptr},
    Field{"rx_bandwidth", qel_if_get_rx_bandwidth, nullptr, nullptr},
    Field{"duplex", qel_if_get_ether_duplex_mode, nullptr, qel_if_get_printable_duplex_mode},
    Field{"unidir", qel_if_get_unidir_mode, nullptr, qel_if_get_printable_unidir_mode},
    Field{"input_flow_control", qel_if_get_input_flow_control, nullptr, qel_if_get_printable_flow_control},
    Field{"output_flow_control", qel_if_get_output_flow_control, nullptr, qel_if_get_printable_flow_control},
    Field{"auto_negotiation", qel_if_get_auto_negotiation, nullptr, qel_if_get_printable_auto_negotiation}};

// "QEL_IF_TYPE_ETHERNET" as "ethernet".
std::string short_name(std::string name) {
    for (const char* prefix : {"QEL_IF_TYPE_", "QEL_IF_ENCAP_", "QEL_IF_FLOW_CONTROL_",
                               "QEL_IF_AUTO_NEGOTIATION_", "QEL_IF_UNIDIR_", "QEL_IF_"}) {
        if (!name.starts_with(prefix)) continue;
        name.erase(0, std::char_traits<char>::length(prefix));
        break;
    }
    for (char& letter : name) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return name;
}

Json value_of(const Field& field, std::uint32_t value, cerrno result) {
    if (result != 0) return nullptr;
    if (field.name_of == nullptr) return value;
    return short_name(field.name_of(value));
}

std::optional<std::string> read_mac(std::uint32_t app, std::uint64_t ifh) {
    std::array<std::uint8_t, 6> mac;
    if (qel_if_get_ether_mac_address(app, ifh, mac.data()) != 0) return std::nullopt;
    return fmt::format("{:02x}", fmt::join(mac, ":"));
}

Json describe(std::uint32_t app, std::uint64_t ifh, const std::string& name) {
    Json one = {{"ifh", ifh}, {"name", name}};
    for (const Field& field : kFields) {
        std::uint32_t value = 0;
        const cerrno result = field.read(app, ifh, &value);
        one[field.name] = value_of(field, value, result);
    }
    std::uint64_t number = 0;
    if (qel_if_get_base_interface(app, ifh, &number) == 0) one["base_if"] = number;
    if (qel_if_get_snmp_if_index(app, ifh, &number) == 0) one["snmp_index"] = number;
    const auto mac = read_mac(app, ifh);
    one["mac"] = mac ? Json(*mac) : Json(nullptr);
    return one;
}

// --- list

Handles find_interfaces(std::uint32_t app) {
    qel_if_iteration_filter all;
    std::uint64_t* handles = nullptr;
    std::size_t count = 0;
    qel_if_iteration_filter_init(&all);
    if (cerrno error = qel_if_iterator_glob(app, &all, &handles, &count); error != 0)
        fail("the interfaces", error);
    const Handles found{handles, handles + count};
    std::free(handles);
    return found;
}

// Interfaces that went meanwhile are left out.
std::vector<Json> describe_names(std::uint32_t app, const Handles& handles) {
    std::vector<std::array<char, QEL_IF_NAME_SIZE>> names(handles.size());
    std::vector<char*> buffers;
    for (auto& name : names) buffers.push_back(name.data());
    std::vector<cerrno> results(handles.size());
    static_cast<void>(qel_if_bulk_get_name(app, handles.data(), buffers.data(), results.data(),
                                           QEL_IF_NAME_SIZE,
                                           handles.size()));  // the results tell
    std::vector<Json> all(handles.size());
    for (std::size_t i = 0; i < handles.size(); ++i)
        if (results[i] == 0) all[i] = {{"ifh", handles[i]}, {"name", names[i].data()}};
    return all;
}

void add_field(std::uint32_t app, const Handles& handles, const Field& field, std::vector<Json>& all) {
    std::vector<std::uint32_t> values(handles.size());
    std::vector<cerrno> results(handles.size());
    const cerrno error = field.bulk(app, handles.data(), values.data(), results.data(), handles.size());
    for (std::size_t i = 0; i < handles.size(); ++i)
        if (!all[i].is_null())
            all[i][field.name] = value_of(field, values[i], error != 0 ? error : results[i]);
}

Json describe_all(std::uint32_t app) {
    const Handles handles = find_interfaces(app);
    Json interfaces = Json::array();
    if (handles.empty()) return interfaces;
    std::vector<Json> all = describe_names(app, handles);
    for (const Field& field : kFields)
        if (field.bulk != nullptr) add_field(app, handles, field, all);
    for (Json& one : all) {
        if (one.is_null()) continue;
        const auto mac = read_mac(app, one["ifh"]);
        one["mac"] = mac ? Json(*mac) : Json(nullptr);
        interfaces.push_back(std::move(one));
    }
    return interfaces;
}

// What an interface doesn't have shows as "-".
Json without_nulls(const Json& interfaces) {
    Json shown = Json::array();
    for (const Json& one : interfaces) {
        Json& row = shown.emplace_back(Json::object());
        for (const auto& [field, value] : one.items())
            if (!value.is_null()) row[field] = value;
    }
    return shown;
}

Exit list_interfaces(const Run& run) {
    OwnRoot root{run.root};
    Client client;
    const Json interfaces = describe_all(client.app());
    if (run.json)
        print_json({{"interfaces", interfaces}});
    else
        print_table(without_nulls(interfaces), {{"IFH", "ifh"},
                                                {"NAME", "name"},
                                                {"TYPE", "type"},
                                                {"OPER", "oper"},
                                                {"ADMIN", "admin"},
                                                {"MTU", "mtu"},
                                                {"SPEED", "speed"},
                                                {"ENCAP", "encap"},
                                                {"MAC", "mac"}});
    return Exit::fine;
}

// --- show

Exit show_interface(const Run& run, const std::string& name) {
    OwnRoot root{run.root};
    Client client;
    std::uint64_t ifh = 0;
    if (cerrno error = qel_if_get_handle(client.app(), name.c_str(), &ifh); error != 0)
        fail(fmt::format("interface \"{}\"", printable(name)).c_str(), error);
    const Json one = describe(client.app(), ifh, name);
    if (run.json) {
        print_json(one);
        return Exit::fine;
    }
    for (const auto& [field, value] : one.items())
        fmt::print("{:<20} {}\n", field, value.is_null() ? "-" : text_of(value));
    return Exit::fine;
}

// --- watch

// What was heard and not printed yet. The service calls on the dispatcher's thread, the tool prints on its
// own. It outlives both: a callback that has begun goes on while its client ends.
class Ear {
  public:
    Ear() = default;
    void listen(std::uint32_t app) {
        app_ = app;
        for (std::uint64_t ifh : find_interfaces(app)) names_[ifh] = name_of(ifh);
        qel_if_event_cb_vector vector{};
        vector.created = [](std::uint64_t ifh, std::uint32_t, std::uint64_t ear) {
            of(ear).hear(ifh, "created");
        };
        vector.deleted = [](std::uint64_t ifh, std::uint32_t, std::uint64_t ear) {
            of(ear).hear(ifh, "deleted");
        };
        std::uint32_t reg = 0;  // ends with the client
        const auto self = reinterpret_cast<std::uintptr_t>(this);
        if (cerrno error = qel_if_register_callbacks(app, &vector, nullptr, self, &reg); error != 0)
            fail("events", error);
    }
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    std::vector<Json> take() {
        std::lock_guard lock{mutex_};
        return std::exchange(heard_, {});
    }

  private:
    static Ear& of(std::uint64_t ear) { return *reinterpret_cast<Ear*>(ear); }
    std::string name_of(std::uint64_t ifh) {
        std::array<char, QEL_IF_NAME_SIZE> name{};
        return qel_if_get_name(app_, ifh, name.data(), name.size()) == 0 ? name.data() : "";
    }
    // One that went is known by the name that it had.
    void hear(std::uint64_t ifh, const char* event) {
        std::lock_guard lock{mutex_};
        std::string& name = names_[ifh];
        if (name.empty()) name = name_of(ifh);
        heard_.push_back({{"event", event}, {"ifh", ifh}, {"name", name}});
        if (*event == 'd') names_.erase(ifh);
    }

    std::uint32_t app_ = 0;
    std::mutex mutex_;
    std::map<std::uint64_t, std::string> names_;
    std::vector<Json> heard_;
};

// A dispatcher and the thread that serves it.
class Dispatcher {
  public:
    Dispatcher() {
        if (int error = qel_dm_create(&handle_, "qel if", QEL_DM_PRIVATE); error != 0)
            fail("a dispatcher", static_cast<cerrno>(error));
        thread_ = std::thread{[this] {
            while (!ended_ && qel_dm_wait(handle_) == 0) qel_dm_dispatch(handle_);
        }};
    }
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;
    ~Dispatcher() {
        auto end = [](qel_dm_handle, std::uint64_t ended, std::uint64_t) {
            *reinterpret_cast<bool*>(ended) = true;
        };
        qel_dm_execute(handle_, end, reinterpret_cast<std::uintptr_t>(&ended_), 0);
        thread_.join();
        qel_dm_destroy(&handle_);
    }
    qel_dm_handle handle() const { return handle_; }

  private:
    qel_dm_handle handle_ = 0;
    bool ended_ = false;  // of its thread alone
    std::thread thread_;
};

constexpr std::chrono::milliseconds kBetweenLooks{20};

Exit watch_interfaces(const Run& run, std::uint64_t count) {
    OwnRoot root{run.root};
    Outlet outlet;
    Ear ear;
    Dispatcher dispatcher;
    Client client{dispatcher.handle()};
    ear.listen(client.app());
    for (std::uint64_t shown = 0; !outlet.ended() && (count == 0 || shown < count);
         outlet.wait(kBetweenLooks)) {
        for (const Json& event : ear.take()) {
            if (count != 0 && shown == count) break;
            ++shown;
            outlet.text() += run.json
                                 ? event.dump(-1, ' ', false, Json::error_handler_t::replace)
                                 : fmt::format("{:<8} {:>6} {}", event["event"].get<std::string>(),
                                               event["ifh"].get<std::uint64_t>(), text_of(event["name"]));
            outlet.text() += '\n';
        }
        outlet.flush();
    }
    return Exit::fine;
}

}  // namespace

void add_if(CLI::App& program, Run& run) {
    CLI::App* family = program.add_subcommand("if", "Shows this machine's interfaces");
    family->require_subcommand(1);
    CLI::App* list = family->add_subcommand("list", "Lists the interfaces");
    list->callback([&run] { run.action = [&run] { return list_interfaces(run); }; });

    auto name = std::make_shared<std::string>();
    CLI::App* show = family->add_subcommand("show", "Shows all that is known of an interface");
    show->add_option("NAME", *name)->required()->type_name(kInterface);
    show->callback([&run, name] { run.action = [&run, name] { return show_interface(run, *name); }; });

    auto count = std::make_shared<std::uint64_t>(0);
    CLI::App* watch = family->add_subcommand("watch", "Tells of interfaces that come and go");
    watch->add_option("--count", *count, "Ends after that many events")->type_name("N");
    watch->callback([&run, count] { run.action = [&run, count] { return watch_interfaces(run, *count); }; });
}

}  // namespace qel_tool
