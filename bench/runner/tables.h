/// @file
/// Figures out of the results, and tables and data files made of them.
#ifndef PELMAR_BENCH_TABLES_H
#define PELMAR_BENCH_TABLES_H

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "statistics.h"

namespace report {

using Rounds = std::vector<double>;

std::string Format(const char* format, double value);

/// Three significant digits, as far as a figure is worth reading.
std::string Short(double value);

/// "16384" as "16 KiB".
std::string SizeText(const std::string& bytes);

/// Null where there is nothing.
const nlohmann::json* Find(const nlohmann::json& from, const std::vector<std::string>& path);

/// Empty where there is nothing.
Rounds RoundsAt(const nlohmann::json& from, const std::vector<std::string>& path);

/// The keys by their values: JSON sorts "16384" before "64".
std::vector<std::string> NumericKeys(const nlohmann::json& object);

/// Markdown.
class Table {
public:
    explicit Table(const std::vector<std::string>& heading);
    void Row(const std::vector<std::string>& cells);
    std::string Text() const { return m_text.str() + "\n"; }

private:
    std::ostringstream m_text;
};

/// A row for each server that has any value, a column for each key.
std::string ServerTable(const std::string& corner, const std::vector<std::string>& keys,
                        const std::function<std::string(const std::string&)>& heading,
                        const std::function<const nlohmann::json*(const std::string& server,
                                                                  const std::string& key)>& value,
                        const std::function<std::string(const nlohmann::json&)>& text,
                        const std::vector<std::string>& servers);

/// The same of counts by server and by size in bytes.
std::string CountsTable(const std::string& corner, const nlohmann::json& counts,
                        const std::vector<std::string>& servers);

std::string MedianText(const nlohmann::json& rounds);
std::string NumberText(const nlohmann::json& number);

/// A table by itself, of one of a server's figures.
struct Column {
    const char* title;
    const char* key;
    std::string (*text)(const nlohmann::json& value);
};

/// For gnuplot: a line for each key, a column with the median for each server; "?" where there is
/// nothing.
void WriteServerData(const std::string& file, const nlohmann::json& by_key,
                     const std::function<std::string(const std::string&)>& label,
                     const std::vector<std::string>& servers);

}  // namespace report

#endif
