// The source file of one role; it is compiled for each.

#include "role-user.h"

#include "pelmar-dbus-local.h"

namespace {

class Channel : public AnyChannel {
public:
    explicit Channel(const std::string& name) : m_channel(name) {}
    bool IsReady(const std::string& partner) override
    {
        return m_channel.IsConnectionReady(partner);
    }

private:
    PelmarDbusLocal m_channel;
};

}  // namespace

#ifdef PELMAR_ROLE_CLIENT
std::unique_ptr<AnyChannel> MakeClientChannel(const std::string& name)
#else
std::unique_ptr<AnyChannel> MakeServiceChannel(const std::string& name)
#endif
{
    return std::make_unique<Channel>(name);
}
