#include "vu/dbc/extras.h"

#include <fmt/format.h>

namespace vu::dbc {

namespace {

template <typename Value>
void take(const std::map<SignalKey, Value> &from, const SignalKey &key, auto &to)
{
    if (const auto found = from.find(key); found != from.end())
        to = found->second;
}

void attachTo(Signal &signal, uint32_t id, const Extras &extras)
{
    const SignalKey key{id, signal.name};
    take(extras.numbers, key, signal.number);
    take(extras.selections, key, signal.selection);
    take(extras.values, key, signal.values);
    take(extras.comments, key, signal.comment);
    take(extras.longNames, key, signal.name);
    if (signal.selection && !signal.selection->selector.empty())
        take(extras.longNames, {id, signal.selection->selector}, signal.selection->selector);
}

// A later message of a name that is taken gets its identifier, and a number where that is taken as well.
class MessageNames {
public:
    std::string unique(const Message &message)
    {
        std::string name = message.name;
        if (uses_[name]++ == 0)
            return name;
        name = fmt::format("{}@{:X}", message.name, message.id);
        while (const unsigned before = uses_[name]++)
            name = fmt::format("{}@{:X}.{}", message.name, message.id, before + 1);
        return name;
    }

private:
    std::map<std::string, unsigned> uses_;
};

} // namespace

void attach(std::vector<Message> &messages, const std::vector<uint32_t> &ids, const Extras &extras)
{
    MessageNames names;
    for (size_t i = 0; i < messages.size(); ++i) {
        Message &message = messages[i];
        take(extras.comments, {ids[i], ""}, message.comment);
        take(extras.longNames, {ids[i], ""}, message.name);
        message.name = names.unique(message);
        for (Signal &signal : message.signals)
            attachTo(signal, ids[i], extras);
    }
}

} // namespace vu::dbc
