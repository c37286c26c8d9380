/// @file
/// A channel whose handlers write into the recorder's list, and say what they are told to say.
#ifndef PELMAR_TESTS_RECORDED_CHANNEL_H
#define PELMAR_TESTS_RECORDED_CHANNEL_H

#include <functional>
#include <string>

#include "bus-actor.h"
#include "pelmar-dbus-local.h"
#include "recorder.h"

class RecordedChannel : public PelmarDbusLocal {
public:
    using PelmarDbusLocal::PelmarDbusLocal;

    Bytes HandleMessage(Bytes& data) override
    {
        Record("HandleMessage(" + Hex(data) + ")");
        return m_answer(data);
    }
    void HandleNotification(Bytes& data) override
    {
        Record("HandleNotification(" + Hex(data) + ")");
    }
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        Record(std::string("HandleConnectionReady(") + (state ? "true" : "false") + ", " +
               Recorder::Get().Show(partner.c_str()) + ")");
        if (m_on_ready)
            m_on_ready();
    }

    std::function<Bytes(const Bytes&)> m_answer = [](const Bytes& data) { return data; };
    std::function<void()> m_on_ready;

private:
    static void Record(const std::string& line) { Recorder::Get().Add(line); }

    static std::string Hex(Bytes data)
    {
        GVariant* body = g_variant_ref_sink(BusActor::Body(data));
        const std::string shown = Recorder::Get().ShowBody(body);
        g_variant_unref(body);
        return shown.substr(shown.find('['), shown.find(']') - shown.find('[') + 1);
    }
};

#endif
