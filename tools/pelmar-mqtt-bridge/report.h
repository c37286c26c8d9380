// What the bridge says on standard error: one line each, for a person or the journal.
#ifndef PELMAR_BRIDGE_REPORT_H
#define PELMAR_BRIDGE_REPORT_H

#include <string>

namespace report {

// The channel that the lines name from now on. To be called before there are threads.
void SetChannel(const std::string& channel);

void Info(const std::string& text);
void Error(const std::string& text);

}  // namespace report

#endif
