// What is on its way to one partner: in which order it leaves, how much of it may wait, and how
// much may be under way before the partner has dealt with what came before. Internal. Knows no bus.
//
// A message is taken into the window, leaves when few enough bytes are in transit, and gives its
// room back when the partner has dealt with it: a request when it is answered, a notification when
// something that was sent after it was. Answers to the partner's own requests keep their place in
// the order but are not held back by the window, since the partner may be waiting for them and for
// nothing else.
#ifndef PELMAR_PARTNER_WINDOW_H
#define PELMAR_PARTNER_WINDOW_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

// What a message costs beyond its bytes, about.
constexpr std::size_t MESSAGE_OVERHEAD = 512;

struct Outgoing {
    enum class Kind { notification, request, answer };

    Outgoing(Kind of_kind, std::size_t size) : kind(of_kind), cost(size + MESSAGE_OVERHEAD) {}
    virtual ~Outgoing() = default;
    Outgoing(const Outgoing&) = delete;
    Outgoing& operator=(const Outgoing&) = delete;

    const Kind kind;
    const std::size_t cost;
    std::uint64_t position = 0;  // in what was sent to the partner, once it was
    std::uint64_t given = 0;     // in what was given to the daemon for all partners, likewise
};

// What is under way to all partners together: a bus daemon reads no more from an endpoint of which
// too much is unread.
struct Transit {
    static constexpr std::size_t MOST_BYTES = 112UL * 1024 * 1024;
    static constexpr std::size_t MOST_BYTES_FOR_LARGE = 80UL * 1024 * 1024;

    // With more than this under way some of the partners may have stopped to read, and a large
    // message leaves for those only that have just shown that they have not.
    static constexpr std::size_t CAREFREE_BYTES = 16UL * 1024 * 1024;

    std::uint64_t bytes = 0;
};

class PartnerWindow {
public:
    using Item = std::shared_ptr<Outgoing>;

    // How much is under way to a partner at a time, unless it is one message.
    static constexpr std::size_t TRANSIT_BYTES = 512UL * 1024;
    // The same while an answer waits behind it.
    static constexpr std::size_t AHEAD_OF_ANSWER_BYTES = 32UL * 1024 * 1024;
    static constexpr std::size_t ANSWER_TRANSIT_BYTES = 1024UL * 1024;

    // `bytes` of notifications and requests may wait, and `answer_bytes` of answers.
    PartnerWindow(std::size_t bytes, std::size_t answer_bytes, std::shared_ptr<Transit> all)
        : m_bytes(bytes), m_answer_bytes(answer_bytes), m_all(std::move(all))
    {
    }
    PartnerWindow(const PartnerWindow&) = delete;
    PartnerWindow& operator=(const PartnerWindow&) = delete;

    // False when there is no room for it.
    bool Take(Item item);

    // A notification leaves at once, without being taken. False when it may not: something waits,
    // or there is no room.
    bool Pass(std::size_t cost);

    // What leaves next, null when nothing may. `may_call`: whether one more request may be open.
    Item Next(bool may_call);

    // What leaves next where nothing but the way itself holds it up; null when nothing waits.
    Item NextAnyway();

    // A request that has not left will not.
    void Drop(const Outgoing& request);

    // An answered request, or one that can get no answer any more. What `was_dealt_with` came
    // before it, too.
    void End(const Outgoing& request, bool was_dealt_with);

    // The partner is asked, about all that was sent up to the position; and its answer.
    std::uint64_t Ask();
    void WordCame(std::uint64_t position);

    // It shows in another way that it has dealt with all up to there.
    std::uint64_t Position() const { return m_sent; }
    std::uint64_t DealtWithPosition() const { return m_dealt_with; }
    void DealtWith(std::uint64_t position);

    // The partner reads its answers: it has asked again, after all that it asked was answered.
    void AnswersTaken();

    // Whether somebody waits for room that only the partner's word can give.
    bool WantsWord() const;

    // Whether there is room again for what Take refused; once for each time.
    bool HasRoomAgain();

    bool HasWaiting() const { return !m_waiting.empty(); }

private:
    bool HasRoomFor(std::size_t cost) const;
    void Left(std::size_t cost);
    bool MayLeave(const Outgoing& item, bool may_call) const;
    static bool IsLarge(const Outgoing& item) { return item.cost > TRANSIT_BYTES; }
    bool IsHeadLarge() const { return HasWaiting() && IsLarge(*m_waiting.front()); }
    bool MayLeaveThoughLarge(std::size_t cost) const;
    bool IsAnswerWaiting() const { return m_waiting_answers != 0; }
    std::uint64_t InTransit() const { return m_sent - m_dealt_with; }
    std::uint64_t AnswersInTransit() const { return m_answers_sent - m_answers_taken; }

    struct Notified {
        std::uint64_t position;
        std::size_t cost;
    };

    const std::size_t m_bytes;
    const std::size_t m_answer_bytes;
    const std::shared_ptr<Transit> m_all;
    std::deque<Item> m_waiting;
    std::size_t m_waiting_answers = 0;  // how many
    std::size_t m_waiting_answer_bytes = 0;
    std::size_t m_used = 0;
    std::size_t m_refused = 0;  // the cost of the smallest that was refused

    std::size_t m_open_requests = 0;
    bool m_asked_for_large = false;  // since a large message is the next to leave
    bool m_may_send_large = false;   // and was answered

    // Bytes since the beginning.
    std::uint64_t m_sent = 0;
    std::uint64_t m_dealt_with = 0;
    std::uint64_t m_answers_sent = 0;
    std::uint64_t m_answers_taken = 0;
    std::deque<Notified> m_notified;  // sent, and not known to be dealt with
};

#endif
