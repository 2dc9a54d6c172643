#include "vu/record/file/track.h"

namespace vu {

namespace {

std::optional<double> numberIn(const Json &stanza, const char *key)
{
    const auto found = stanza.find(key);
    return found != stanza.end() && found->is_number() ? std::optional(found->get<double>()) : std::nullopt;
}

} // namespace

void describeValues(Track &track, const std::string &stanza)
{
    const Json json = Json::parse(stanza, nullptr, false);
    if (!json.is_object())
        return;
    // Only a series that is held from value to value has samples without one.
    if (track.periodic())
        track.invalid = numberIn(json, "invalid_data_output_value");
    const auto scale = numberIn(json, "scale"), offset = numberIn(json, "offset"),
               zero = numberIn(json, "rezero_offset");
    if (!scale && !offset && !zero)
        return;
    const auto at = json.find("connector");
    const std::string connector = at != json.end() && at->is_string() ? at->get<std::string>() : "";
    // A bridge takes its zero itself: the library subtracts none.
    const bool bridge =
        connector.find("brg_") != std::string::npos || connector.find("hls_") != std::string::npos;
    track.calibration =
        krd::Calibration{scale.value_or(1.0), offset.value_or(0.0), bridge ? 0.0 : zero.value_or(0.0), {}};
}

} // namespace vu
