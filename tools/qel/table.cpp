// Documents as tables of text.
#include "table.hpp"

#include <algorithm>

namespace qel_tool {

std::string text_of(const Json& value) {
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    return printable(value.is_string() ? value.get<std::string>() : value.dump());
}

void print_table(const Json& rows, std::initializer_list<Column> columns) {
    std::vector<std::size_t> widths;
    for (const Column& column : columns) {
        std::size_t width = std::string_view{column.title}.size();
        for (const Json& row : rows)
            if (row.contains(column.field)) width = std::max(width, text_of(row[column.field]).size());
        widths.push_back(width);
    }
    auto print_row = [&](auto text) {
        std::string line;
        std::size_t at = 0;
        for (const Column& column : columns) line += fmt::format("  {:<{}}", text(column), widths[at++]);
        fmt::print("{}\n", line.substr(0, line.find_last_not_of(' ') + 1));
    };
    print_row([](const Column& column) { return std::string{column.title}; });
    for (const Json& row : rows) {
        print_row([&](const Column& column) {
            return row.contains(column.field) ? text_of(row[column.field]) : std::string{"-"};
        });
        if (row.contains("error")) fmt::print("      {}\n", text_of(row["error"]));
    }
}

void print_fields(const Json& document, std::initializer_list<const char*> fields) {
    for (const char* field : fields) fmt::print("  {:<20} {}\n", field, text_of(document[field]));
}

}  // namespace qel_tool
