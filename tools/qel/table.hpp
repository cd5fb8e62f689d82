// Documents as tables of text.
#pragma once

#include <initializer_list>

#include "command.hpp"

namespace qel_tool {

// A value as a reader wants it: "yes" or "no" for a truth, a text without quotes.
std::string text_of(const Json& value);

struct Column {
    const char* title;
    const char* field;
};

// A row a document, a column a field; each column as wide as its widest text. A row with an "error" shows
// that below it.
void print_table(const Json& rows, std::initializer_list<Column> columns);

// A line for each of 'fields' of the document.
void print_fields(const Json& document, std::initializer_list<const char*> fields);

}  // namespace qel_tool
