/// @file
/// Notifications of an endpoint that wait for room instead of being refused.
#ifndef PELMAR_BENCH_PATIENT_NOTIFIER_H
#define PELMAR_BENCH_PATIENT_NOTIFIER_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "pelmar-endpoint.h"

class PatientNotifier {
public:
    /// Takes the endpoint's OnRoom.
    explicit PatientNotifier(PelmarEndpoint& endpoint) : m_endpoint(endpoint)
    {
        endpoint.OnRoom([this](const PelmarEndpoint::Partner& /*partner*/) { LookAgain(); });
    }

    /// Stops the endpoint: its handlers use this.
    ~PatientNotifier() { m_endpoint.Stop(); }
    PatientNotifier(const PatientNotifier&) = delete;
    PatientNotifier& operator=(const PatientNotifier&) = delete;

    /// To be called when a partner is lost, too: it is no longer waited for.
    void LookAgain()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_times;
        m_changed.notify_all();
    }

    void NotifyAll(const PelmarEndpoint::Bytes& data)
    {
        for (const PelmarEndpoint::Missed& missed : m_endpoint.NotifyAll(data).missed) {
            if (missed.status == PelmarEndpoint::Status::queue_full)
                NotifyWhenThereIsRoom(missed.partner, data);
        }
    }

private:
    std::uint64_t Times() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_times;
    }

    void AwaitMoreThan(std::uint64_t times)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_times > times; });
    }

    void NotifyWhenThereIsRoom(const PelmarEndpoint::Partner& partner,
                               const PelmarEndpoint::Bytes& data)
    {
        for (;;) {
            const std::uint64_t times = Times();
            if (m_endpoint.Notify(partner, data) != PelmarEndpoint::Status::queue_full)
                return;
            AwaitMoreThan(times);
        }
    }

    PelmarEndpoint& m_endpoint;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_times = 0;
};

#endif
