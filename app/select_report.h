// What mixrank-select writes: the table for reading, the JSON and CSV
// reports, and the classification as CSV.
#pragma once

#include <mixrank/mixrank.h>

#include <string>
#include <vector>

#include "io/table_reader.h"
#include "select_options.h"

namespace mixrank {

// Everything a report says about one run.
struct SelectRun {
    const SelectOptions* options = nullptr;
    const Table* table = nullptr;
    const Data* data = nullptr;
    const Selection* selection = nullptr;
};

// The table with each criterion's minimum marked, the settings above it and
// the recommendation below it.
std::string table_text(const SelectRun& run);

std::string json_report(const SelectRun& run, const Classification* classification, std::size_t classified_row);

std::string csv_report(const SelectRun& run);

// One line per row: the input's columns, the label, the posteriors and the
// uncertainty, with a header line of names.
std::string classification_csv(const SelectRun& run, const Classification& c);

extern const char kSelectVersion[];

}  // namespace mixrank
