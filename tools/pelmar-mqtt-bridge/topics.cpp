#include "topics.h"

#include <sstream>

std::vector<std::string> Topics::Levels(const std::string& topic) const
{
    std::vector<std::string> levels;
    if (topic.compare(0, m_start.size(), m_start) != 0)
        return levels;
    std::istringstream stream(topic.substr(m_start.size()));
    for (std::string level; std::getline(stream, level, '/');)
        levels.push_back(level);
    return levels;
}
