#include "support/support.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <sstream>

#include <qel/cerrno.h>
#include <qel/mem.h>

namespace {

using namespace qel_test;

std::string hex(uint32_t code) {
    std::ostringstream text;
    text << std::hex << code;
    return text.str();
}

std::string segment(uint32_t subsystem, const char* version = "1.0") {
    return "cerr_map." + std::to_string(subsystem) + "." + version;
}

// Registers a table for the rest of the process; the texts get the codes 1, 2, ...
struct Table {
    qel_cerrno_node node{QEL_CERRNO_NODE_MAGIC, nullptr, nullptr};
    qel_cerrno_info info{};
    std::vector<qel_cerrno_code> codes;
};
Table& register_table(uint32_t subsystem, uint32_t major, uint32_t minor, std::vector<const char*> texts) {
    static std::deque<Table> tables;
    Table& table = tables.emplace_back();
    for (const char* text : texts) table.codes.push_back({uint32_t(table.codes.size() + 1), text});
    table.info = {"Chassis", subsystem, uint32_t(texts.size()), table.codes.data(), major, minor};
    table.node.info = &table.info;
    __register_cerrno(&table.node);
    return table;
}

uint32_t number(const std::string& text) {
    return static_cast<uint32_t>(std::stoul(text));
}

// Publishes one table from a process of its own: subsystem, major, minor, text of code 1.
QEL_ROLE(publish) {
    register_table(number(args[0]), number(args[1]), number(args[2]), {args[3].c_str(), "second"});
    say(hex(qel_cerrno_init()));
    return 0;
}

std::string published(uint32_t subsystem, const char* major, const char* minor, const char* text) {
    Child child{"publish", {std::to_string(subsystem), major, minor, text}};
    std::string result = child.read_line();
    EXPECT_EQ(child.wait(), 0);
    return result;
}

// Tells the text of code 1 of each subsystem that the parent writes, and after "map" how many maps it has
// of one.
QEL_ROLE(decode) {
    for (std::string line = hear(); !line.empty(); line = hear()) {
        if (line.starts_with("map ")) {
            say(std::to_string(mapping_count(segment(number(line.substr(4)), ""))));
            continue;
        }
        qel_cerrno_strings* texts = nullptr;
        uint32_t result = cerr_getstrings(0xa0000000u | number(line) << 15 | 1u << 9, &texts);
        say(result == 0 ? texts->code : "failed " + hex(result));
    }
    return 0;
}

class Decoder {
  public:
    std::string ask(const std::string& line) {
        child_.write_line(line);
        return child_.read_line();
    }
    std::string text(uint32_t subsystem) { return ask(std::to_string(subsystem)); }
    int maps(uint32_t subsystem) { return std::stoi(ask("map " + std::to_string(subsystem))); }
    ~Decoder() {
        child_.write_line("");
        EXPECT_EQ(child_.wait(), 0);
    }

  private:
    Child child_{"decode"};
};

constexpr const char* kDefault = "Unknown Code(1)";

std::string read_object(const std::string& name) {
    std::ostringstream bytes;
    bytes << std::ifstream(shm_file(name), std::ios::binary).rdbuf();
    return bytes.str();
}

void poke(const std::string& name, std::streamoff offset, const std::string& bytes) {
    std::fstream file(shm_file(name), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(offset) << bytes;
    ASSERT_TRUE(file.flush().good()) << name;
}

std::string word(uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

}  // namespace

TEST(CerrnoMap, table_is_told_by_a_process_that_never_had_it) {
    EXPECT_EQ(published(100, "1", "2", "No such card"), "0");
    EXPECT_EQ(Decoder{}.text(100), "No such card");
    // The segment and the header entry, byte by byte.
    std::string expected = word(0xabcdef00) + word(100) + "Chassis";
    expected.resize(72);
    expected += word(2) + word(0) + word(1) + "No such card" + '\0' + word(2) + "second" + '\0';
    expected.resize((expected.size() + 7) / 8 * 8);
    EXPECT_EQ(read_object("cerr_map.100.1.2"), expected);
    std::string header = read_object("cerr_map_hdr");
    ASSERT_EQ(header.size(), 32776u);
    EXPECT_EQ(header.substr(0, 8), word(0xabcdef00) + word(0));
    EXPECT_EQ(header.substr(8 + 4 * 100, 4), word(2u << 16 | 1u));
    EXPECT_EQ(header.substr(8 + 4 * 101, 4), word(0));
}

TEST(CerrnoMap, newer_version_replaces_and_older_changes_nothing) {
    EXPECT_EQ(published(110, "1", "0", "of 1.0"), "0");
    Decoder decoder;
    EXPECT_EQ(decoder.text(110), "of 1.0");
    EXPECT_EQ(published(110, "1", "1", "of 1.1"), "0");
    EXPECT_FALSE(shm_exists(segment(110)));
    EXPECT_EQ(published(110, "1", "0", "late 1.0"), "0");
    EXPECT_FALSE(shm_exists(segment(110)));
    EXPECT_EQ(decoder.text(110), "of 1.1") << "a process with the old map open goes over";
    EXPECT_EQ(published(110, "2", "0", "of 2.0"), "0");
    EXPECT_EQ(decoder.text(110), "of 2.0");
    EXPECT_EQ(decoder.maps(110), 1);
}

TEST(CerrnoMap, sixth_table_pushes_out_the_least_recently_used) {
    for (uint32_t subsystem = 121; subsystem <= 126; ++subsystem)
        EXPECT_EQ(published(subsystem, "1", "0", std::to_string(subsystem).c_str()), "0");
    Decoder decoder;
    for (uint32_t subsystem : {121, 122, 123, 124, 125, 121, 126})
        EXPECT_EQ(decoder.text(subsystem), std::to_string(subsystem));
    EXPECT_EQ(decoder.maps(122), 0);
    EXPECT_EQ(decoder.maps(121), 1);
    EXPECT_EQ(decoder.text(122), "122");
}

TEST(CerrnoMap, corrupt_segment_gives_default_texts) {
    struct Damage {
        const char* what;
        std::function<void(const std::string&)> apply;
    };
    auto shorten = [](uint32_t size) {
        return [size](const std::string& name) { ASSERT_EQ(truncate(shm_file(name).c_str(), size), 0); };
    };
    const Damage damages[] = {
        {"cut behind the header", shorten(80)},
        {"cut in a row", shorten(80 + 4 + 3)},
        {"cut in the state", shorten(3)},
        {"count of 4 billion", [](const std::string& name) { poke(name, 72, word(~0u)); }},
        {"name without end", [](const std::string& name) { poke(name, 8, std::string(64, 'n')); }},
        {"another subsystem", [](const std::string& name) { poke(name, 4, word(7)); }},
        {"junk state", [](const std::string& name) { poke(name, 0, word(0x11111111)); }},
        {"fresh state", [](const std::string& name) { poke(name, 0, word(0)); }},
    };
    Decoder decoder;
    uint32_t subsystem = 130;
    for (const Damage& damage : damages) {
        EXPECT_EQ(published(++subsystem, "1", "0", "text"), "0");
        damage.apply(segment(subsystem));
        EXPECT_EQ(decoder.text(subsystem), kDefault) << damage.what;
    }
    EXPECT_EQ(read_object(segment(subsystem)).substr(0, 4), word(0)) << "a reader claims nothing";
}

TEST(CerrnoMap, header_left_by_the_dead_or_overwritten) {
    EXPECT_EQ(published(140, "1", "0", "text"), "0");
    // The publishers' lock held by the dead: reading goes on, publishing ends in time.
    poke("cerr_map_hdr", 4, word(1));
    EXPECT_EQ(Decoder{}.text(140), "text");
    EXPECT_EQ(published(140, "1", "0", "text"), "0");
    EXPECT_EQ(published(141, "1", "0", "text"), hex(0xc0010c00u | ETIMEDOUT));
    poke("cerr_map_hdr", 4, word(0));
    // Initialiser died: the next one takes over after a second.
    poke("cerr_map_hdr", 0, word(0x12341234));
    EXPECT_EQ(Decoder{}.text(140), "text");
    EXPECT_EQ(read_object("cerr_map_hdr").substr(0, 4), word(0xabcdef00));
    poke("cerr_map_hdr", 0, word(0x55555555));
    EXPECT_EQ(published(140, "1", "0", "text"), "a0010816");
    Decoder decoder;
    EXPECT_EQ(decoder.text(140), kDefault);
    poke("cerr_map_hdr", 0, word(0xabcdef00));
    EXPECT_EQ(decoder.text(140), "text") << "nothing of the refused map was kept";
    ASSERT_EQ(truncate(shm_file("cerr_map_hdr").c_str(), 100), 0);
    EXPECT_EQ(published(140, "1", "0", "text"), hex(0xc0010a00u | EINVAL));
    ASSERT_EQ(unlink(shm_file("cerr_map_hdr").c_str()), 0);
}

// Registers a sound table and, in front of it, one with the named defect.
QEL_ROLE(publish_defect) {
    register_table(150, 1, 0, {"behind"});
    Table& front = register_table(151, args[0] == "version" ? 0 : 1, 0, {"front"});
    if (args[0] == "magic") front.node.magic = 5;
    if (args[0] == "info") front.node.info = nullptr;
    if (args[0] == "subsystem") front.info.subsystem = 9000;
    if (args[0] == "text") front.codes[0].text = "";
    __register_cerrno(&front.node);  // Twice is once, or the walk would never end.
    say(hex(qel_cerrno_init()));
    return 0;
}

TEST(CerrnoMap, table_in_error_ends_the_publication) {
    for (const char* defect : {"version", "magic", "info", "subsystem", "text"}) {
        Child child{"publish_defect", {defect}};
        EXPECT_EQ(child.read_line(), std::string{defect} == "magic" ? "a0010416" : "a0010216") << defect;
        EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_FALSE(shm_exists(segment(150)));
    EXPECT_FALSE(shm_exists(segment(151)));
    Child sound{"publish_defect", {"none"}};
    EXPECT_EQ(sound.read_line(), "0");
    EXPECT_TRUE(shm_exists(segment(150)));
}

QEL_ROLE(publish_race) {
    for (uint32_t i = 0; i < 20; ++i) register_table(160 + i, 1, number(args[0]), {args[0].c_str()});
    hear();
    // Who loses the very first claim is told so, and tries again.
    while (qel_cerrno_init() == 0xa0010816u) {
    }
    return qel_cerrno_init() == 0 ? 0 : 1;
}

TEST(CerrnoMap, racing_publishers_leave_the_newest_tables_and_no_older_segment) {
    for (const std::string& name : shm_objects()) unlink(shm_file(name).c_str());
    std::vector<Child> racers;
    for (int i = 1; i <= 8; ++i) racers.emplace_back("publish_race", RoleArgs{std::to_string(i)});
    for (Child& racer : racers) racer.write_line("go");
    for (Child& racer : racers) EXPECT_EQ(racer.wait(), 0);
    Decoder decoder;
    for (uint32_t subsystem = 160; subsystem < 180; ++subsystem) EXPECT_EQ(decoder.text(subsystem), "8");
    EXPECT_EQ(shm_objects().size(), 22u) << "the header, the library's table, and one of each subsystem";
}
