/// @file
/// The part of the report that is about one technology at both ends.
#ifndef PELMAR_BENCH_PEER_REPORT_H
#define PELMAR_BENCH_PEER_REPORT_H

#include "report.h"

namespace report {

std::vector<Target> PeerTargets(const nlohmann::json& results);

std::string RequestTables(const nlohmann::json& results);
std::string RequestOnTwoTables(const nlohmann::json& results);
std::string DeliveryTables(const nlohmann::json& results);
std::string IdlePartnersTable(const nlohmann::json& results);
std::string HandlersTable(const nlohmann::json& results);
std::string RequestInstructionsTable(const nlohmann::json& results);

void WritePeerPlotData(const nlohmann::json& results, const std::string& folder);

}  // namespace report

#endif
