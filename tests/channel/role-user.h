/// @file
/// A channel of either role behind one name, as a program that uses both has to see them: the
/// header of the class can be included for one role only in each source file.
#ifndef PELMAR_TESTS_ROLE_USER_H
#define PELMAR_TESTS_ROLE_USER_H

#include <memory>
#include <string>

/// A channel that tells when a partner is ready.
class AnyChannel {
public:
    virtual ~AnyChannel() = default;
    virtual bool IsReady(const std::string& partner) = 0;
};

std::unique_ptr<AnyChannel> MakeServiceChannel(const std::string& name);
std::unique_ptr<AnyChannel> MakeClientChannel(const std::string& name);

#endif
