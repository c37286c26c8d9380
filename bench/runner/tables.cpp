#include "tables.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace report {

using nlohmann::json;

namespace {

std::string Quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

}  // namespace

Table::Table(const std::vector<std::string>& heading)
{
    Row(heading);
    m_text << "|";
    for (std::size_t i = 0; i < heading.size(); ++i)
        m_text << (i == 0 ? "---|" : "---:|");
    m_text << "\n";
}

void Table::Row(const std::vector<std::string>& cells)
{
    m_text << "|";
    for (const std::string& cell : cells)
        m_text << " " << cell << " |";
    m_text << "\n";
}

std::string Format(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// Three significant digits, as far as a figure is worth reading.
std::string Short(double value)
{
    if (value == 0)
        return "0";
    const int digits = std::max(0, 2 - static_cast<int>(std::floor(std::log10(std::abs(value)))));
    return Format(("%." + std::to_string(digits) + "f").c_str(), value);
}

std::string SizeText(const std::string& bytes)
{
    const long size = std::stol(bytes);
    constexpr long kib = 1024;
    if (size >= kib * kib)
        return std::to_string(size / kib / kib) + " MiB";
    return size >= kib ? std::to_string(size / kib) + " KiB" : bytes + " B";
}

const json* Find(const json& from, const std::vector<std::string>& path)
{
    const json* found = &from;
    for (const std::string& key : path) {
        const auto next = found->find(key);
        if (next == found->end())
            return nullptr;
        found = &*next;
    }
    return found;
}

Rounds RoundsAt(const json& from, const std::vector<std::string>& path)
{
    const json* found = Find(from, path);
    return found != nullptr ? found->get<Rounds>() : Rounds();
}

// JSON sorts "16384" before "64".
std::vector<std::string> NumericKeys(const json& object)
{
    std::vector<std::string> keys;
    for (const auto& item : object.items())
        keys.push_back(item.key());
    std::sort(keys.begin(), keys.end(), [](const std::string& left, const std::string& right) {
        return std::stol(left) < std::stol(right);
    });
    return keys;
}

// A row for each server that has any value, a column for each key.
std::string ServerTable(
    const std::string& corner, const std::vector<std::string>& keys,
    const std::function<std::string(const std::string&)>& heading,
    const std::function<const json*(const std::string& server, const std::string& key)>& value,
    const std::function<std::string(const json&)>& text, const std::vector<std::string>& servers)
{
    std::vector<std::string> row = {corner};
    std::transform(keys.begin(), keys.end(), std::back_inserter(row), heading);
    Table table(row);
    for (const std::string& server : servers) {
        row = {server};
        bool any = false;
        for (const std::string& key : keys) {
            const json* found = value(server, key);
            any = any || found != nullptr;
            row.push_back(found != nullptr ? text(*found) : "");
        }
        if (any)
            table.Row(row);
    }
    return table.Text();
}

std::string CountsTable(const std::string& corner, const json& counts,
                        const std::vector<std::string>& servers)
{
    return ServerTable(
        corner, NumericKeys(counts.begin().value()), SizeText,
        [&](const std::string& server, const std::string& size) {
            return Find(counts, {server, size});
        },
        [](const json& count) { return std::to_string(count.get<long>()); }, servers);
}

std::string MedianText(const json& rounds)
{
    return Short(statistics::Median(rounds.get<Rounds>()));
}

std::string NumberText(const json& number)
{
    return Short(number.get<double>());
}

// A line for each key, a column for each server; "?" where there is nothing.
void WriteServerData(const std::string& file, const json& by_key,
                     const std::function<std::string(const std::string&)>& label,
                     const std::vector<std::string>& servers)
{
    std::ofstream data(file);
    data << "key";
    for (const std::string& server : servers)
        data << " " << Quoted(server);
    for (const std::string& key : NumericKeys(by_key)) {
        data << "\n" << Quoted(label(key));
        for (const std::string& server : servers) {
            const Rounds rounds = RoundsAt(by_key, {key, server, "us"});
            data << " " << (rounds.empty() ? "?" : Short(statistics::Median(rounds)));
        }
    }
    data << "\n";
}

}  // namespace report
