/// @file
/// One ordered list of what a channel does: its log lines, its GIO calls, its lock and, through
/// RecordedChannel, its handlers. A line reads like the call that it stands for:
///
///   log 3 cb_SynNameOwnerChanged "Monitor unique name %s\n\n" :1.42
///   g_bus_unwatch_name(id=watch#1)
///   lock
///
/// A program that links the recorder gets the channel with its calls of GIO and of the mutex led
/// here by the linker (--wrap, applied to the channel's object file alone: the tests' own calls
/// are not seen). The recorder calls the real functions, unless a test made the next call fail. It
/// is the platform log as well.
#ifndef PELMAR_TESTS_RECORDER_H
#define PELMAR_TESTS_RECORDER_H

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

class Recorder {
public:
    /// There is one, as the calls that it stands in for are the process's.
    static Recorder& Get();

    /// The lines since the last Take, each after a newline, so that a raw string literal that
    /// opens with a newline can be compared with all of them at once.
    std::string Take();

    /// Adds a line and tells those who wait for it (At). Returns its index, for SetResult.
    std::size_t Add(const std::string& line);
    void SetResult(std::size_t line, const std::string& result);

    /// Calls `look` at each line that starts with `text`, before the call that the line stands for
    /// is made: the way to see the channel's state in the middle of a function.
    void At(const std::string& text, std::function<void()> look);
    void StopLooking() { m_looks.clear(); }

    /// Makes the next call of a function fail as GIO does: with an error of that code (G_IO_ERROR)
    /// and message, or without any. g_dbus_connection_call_sync goes by its method's name.
    void Fail(const std::string& call, int code, const std::string& message);
    void FailSilently(const std::string& call);

    /// Gives the next call of a method of the bus daemon this answer, without calling the daemon.
    void Answer(const std::string& method, guint32 code);

    /// True when every value that Answer has handed out was released.
    bool AnswersReleased() const { return m_answers_alive == 0; }

    /// From now on the trace shows a string, or an object, in this way. The process's bus
    /// connection is shown as "own", its unique name as "self", the first channel as "channel".
    void Alias(const std::string& value, const std::string& shown) { m_strings[value] = shown; }
    void Alias(const void* object, const std::string& shown) { m_objects[object] = shown; }

    /// How a trace shows a value. The role suffixes in names are _OWN and _PEER, so that both roles
    /// have the same traces.
    std::string Show(const char* text) const;
    std::string ShowObject(const void* object) const;
    std::string ShowId(guint id) const;
    std::string ShowBody(GVariant* body) const;

    // For the calls that stand in for GIO's.
    bool TakeFault(const std::string& call, GError** error);
    GVariant* TakeAnswer(const std::string& method);
    std::string NameObject(const void* object, const std::string& kind);
    std::string NameId(guint id, const std::string& kind);
    std::string NameChannel(const void* channel);
    void NameError(GError* const* error);  // a real one's text varies with the bus and GLib

private:
    struct Fault {
        bool silent;
        int code;
        std::string message;
    };

    std::string Numbered(const std::string& kind);

    std::vector<std::string> m_lines;
    std::vector<std::pair<std::string, std::function<void()>>> m_looks;
    std::map<std::string, Fault> m_faults;
    std::map<std::string, guint32> m_answers;
    int m_answers_alive = 0;
    std::map<std::string, std::string> m_strings;
    std::map<const void*, std::string> m_objects;
    std::map<guint, std::string> m_ids;
    std::map<std::string, int> m_counters;
};

#endif
