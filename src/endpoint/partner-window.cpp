#include "partner-window.h"

#include <algorithm>
#include <utility>

bool PartnerWindow::Take(Item item)
{
    if (item->kind == Outgoing::Kind::answer) {
        if (m_waiting_answers != 0 && m_waiting_answer_bytes + item->cost > m_answer_bytes)
            return false;
        ++m_waiting_answers;
        m_waiting_answer_bytes += item->cost;
    } else {
        if (!HasRoomFor(item->cost)) {
            m_refused = m_refused == 0 ? item->cost : std::min(m_refused, item->cost);
            return false;
        }
        m_used += item->cost;
    }
    m_waiting.push_back(std::move(item));
    return true;
}

bool PartnerWindow::Pass(std::size_t cost)
{
    if (HasWaiting() || !HasRoomFor(cost))
        return false;
    m_used += cost;
    Left(cost);
    m_notified.push_back({m_sent, cost});
    return true;
}

bool PartnerWindow::HasRoomFor(std::size_t cost) const
{
    return m_used <= m_bytes / 16 || m_used + cost <= m_bytes;
}

void PartnerWindow::Left(std::size_t cost)
{
    m_sent += cost;
    m_all->bytes += cost;
}

PartnerWindow::Item PartnerWindow::Next(bool may_call)
{
    if (m_waiting.empty() || !MayLeave(*m_waiting.front(), may_call))
        return nullptr;
    return NextAnyway();
}

PartnerWindow::Item PartnerWindow::NextAnyway()
{
    if (m_waiting.empty())
        return nullptr;
    Item item = std::move(m_waiting.front());
    m_waiting.pop_front();
    if (IsLarge(*item))
        m_asked_for_large = m_may_send_large = false;
    Left(item->cost);
    item->position = m_sent;
    if (item->kind == Outgoing::Kind::answer) {
        --m_waiting_answers;
        m_waiting_answer_bytes -= item->cost;
        m_answers_sent += item->cost;
    } else if (item->kind == Outgoing::Kind::notification) {
        m_notified.push_back({m_sent, item->cost});
    } else {
        ++m_open_requests;
    }
    return item;
}

bool PartnerWindow::MayLeave(const Outgoing& item, bool may_call) const
{
    const auto fits = [&item](std::uint64_t in_transit, std::size_t most) {
        return in_transit == 0 || in_transit + item.cost <= most;
    };
    if (IsLarge(item) ? !MayLeaveThoughLarge(item.cost) : !fits(m_all->bytes, Transit::MOST_BYTES))
        return false;
    if (item.kind == Outgoing::Kind::answer)
        return fits(AnswersInTransit(), ANSWER_TRANSIT_BYTES);
    if (item.kind == Outgoing::Kind::request && !may_call)
        return false;
    // The partner may look at nothing else before it has the answer that waits behind this.
    return fits(InTransit(), IsAnswerWaiting() ? AHEAD_OF_ANSWER_BYTES : TRANSIT_BYTES);
}

bool PartnerWindow::MayLeaveThoughLarge(std::size_t cost) const
{
    if (m_all->bytes <= Transit::CAREFREE_BYTES)
        return true;
    // Whoever has asked for an answer reads.
    return (m_may_send_large || IsAnswerWaiting()) &&
           m_all->bytes + cost <= Transit::MOST_BYTES_FOR_LARGE;
}

void PartnerWindow::Drop(const Outgoing& request)
{
    m_used -= request.cost;
    m_waiting.erase(std::find_if(m_waiting.begin(), m_waiting.end(),
                                 [&request](const Item& item) { return item.get() == &request; }));
}

void PartnerWindow::End(const Outgoing& request, bool was_dealt_with)
{
    m_used -= request.cost;
    --m_open_requests;
    if (was_dealt_with)
        DealtWith(request.position);
}

std::uint64_t PartnerWindow::Ask()
{
    m_asked_for_large = IsHeadLarge();
    return m_sent;
}

void PartnerWindow::WordCame(std::uint64_t position)
{
    m_may_send_large = m_asked_for_large;
    DealtWith(position);
}

void PartnerWindow::DealtWith(std::uint64_t position)
{
    const std::uint64_t before = std::exchange(m_dealt_with, std::max(m_dealt_with, position));
    m_all->bytes -= m_dealt_with - before;
    if (m_dealt_with == m_sent)
        m_answers_taken = m_answers_sent;
    while (!m_notified.empty() && m_notified.front().position <= m_dealt_with) {
        m_used -= m_notified.front().cost;
        m_notified.pop_front();
    }
}

void PartnerWindow::AnswersTaken()
{
    m_answers_taken = m_answers_sent;
    if (m_notified.empty() && m_open_requests == 0)
        DealtWith(m_sent);
}

bool PartnerWindow::WantsWord() const
{
    if (IsHeadLarge() && !m_may_send_large && m_all->bytes > Transit::CAREFREE_BYTES)
        return true;
    if (InTransit() == 0)
        return false;
    const bool is_much =
        InTransit() > TRANSIT_BYTES / 2 || AnswersInTransit() > ANSWER_TRANSIT_BYTES / 2;
    return is_much || m_refused != 0 || HasWaiting();
}

bool PartnerWindow::HasRoomAgain()
{
    const bool has_room =
        m_used <= m_bytes / 16 || (m_used + m_refused <= m_bytes && m_used <= m_bytes / 2);
    if (m_refused == 0 || !has_room)
        return false;
    m_refused = 0;
    return true;
}
