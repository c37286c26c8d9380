/// @file
/// Sizes of tests that the nightly run raises.
#ifndef PELMAR_TESTS_SETTING_H
#define PELMAR_TESTS_SETTING_H

#include <cstdlib>
#include <string>

/// The number in the environment variable, or `otherwise` when it is not set.
inline unsigned Setting(const char* variable, unsigned otherwise)
{
    const char* value = std::getenv(variable);
    return value != nullptr ? static_cast<unsigned>(std::stoul(value)) : otherwise;
}

#endif
