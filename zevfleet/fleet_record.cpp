#include "fleet_record.h"

#include <nlohmann/json.hpp>

#include "config_zev.h"
#include "fleet_options.h"
#include "json_line.h"
#include "output.h"

namespace zevfleet {

namespace {

using zevctl::Json;

// Bytes that are no UTF-8 are allowed in names, but not in JSON: those of the upper half become the
// characters of the same numbers.
std::string Widened(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto number = static_cast<unsigned char>(byte);
    if (number < 0x80) {
      text += byte;
    } else {
      text += static_cast<char>(0xC0 | number >> 6);
      text += static_cast<char>(0x80 | (number & 0x3F));
    }
  }
  return text;
}

std::optional<std::string> Narrowed(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    if (first < 0x80) {
      bytes += text[i];
      continue;
    }
    if ((first != 0xC2 && first != 0xC3) || i + 1 == text.size()) return {};
    bytes +=
        static_cast<char>((first & 0x03) << 6 | (static_cast<unsigned char>(text[++i]) & 0x3F));
  }
  return bytes;
}

// Takes the values of an object one by one; false as soon as one is missing or of another kind.
class Fields {
 public:
  explicit Fields(const std::string& value) : object_(zevctl::ReadJson(value, 4)) {
    sound_ = object_.is_object();
  }

  Fields& Text(const char* key, std::string* text) {
    const Json* found = Find(key);
    if (found != nullptr && found->is_string()) {
      *text = found->get<std::string>();
    } else {
      sound_ = false;
    }
    return *this;
  }
  Fields& Truth(const char* key, bool* truth) {
    const Json* found = Find(key);
    if (found != nullptr && found->is_boolean()) {
      *truth = found->get<bool>();
    } else {
      sound_ = false;
    }
    return *this;
  }
  template <typename Number>
  Fields& Count(const char* key, Number* number) {
    const Json* found = Find(key);
    if (found != nullptr && found->is_number_unsigned()) {
      *number = found->get<Number>();
    } else {
      sound_ = false;
    }
    return *this;
  }
  Fields& Texts(const char* key, std::vector<std::string>* texts) {
    const Json* found = Find(key);
    if (found == nullptr || !found->is_array()) {
      sound_ = false;
      return *this;
    }
    for (const Json& item : *found) {
      if (!item.is_string()) {
        sound_ = false;
        return *this;
      }
      texts->push_back(item.get<std::string>());
    }
    return *this;
  }

  bool sound() const { return sound_; }

 private:
  const Json* Find(const char* key) const {
    if (!sound_) return nullptr;
    const auto found = object_.find(key);
    return found == object_.end() ? nullptr : &*found;
  }

  Json object_;
  bool sound_ = false;
};

bool AllPlain(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!IsPlainName(name)) return false;
  }
  return true;
}

}  // namespace

std::string Encode(const FleetIdentity& fleet) {
  return zevctl::JsonText({{"format", fleet.format}, {"id", fleet.id}});
}

std::string Encode(const SharedConsole& console) {
  return zevctl::JsonText({{"line", Widened(console.line)},
                           {"stations", console.stations},
                           {"others", console.others},
                           {"told", console.told}});
}

std::string Encode(const ConsoleClaim& claim) {
  return zevctl::JsonText({{"station", claim.station}, {"instance", claim.instance}});
}

std::string Encode(const FleetStation& station) {
  return zevctl::JsonText({{"instance", station.instance},
                           {"address", zevctl::Utf8(station.address)},
                           {"web", zevctl::Utf8(station.web)},
                           {"version", station.version},
                           {"ready", station.ready},
                           {"beat", station.beat}});
}

std::optional<FleetIdentity> DecodeIdentity(const std::string& value) {
  FleetIdentity fleet;
  Fields fields(value);
  fields.Count("format", &fleet.format).Text("id", &fleet.id);
  if (!fields.sound() || fleet.id.empty()) return {};
  return fleet;
}

std::optional<SharedConsole> DecodeConsole(const std::string& name, const std::string& value) {
  SharedConsole console;
  console.name = name;
  std::string wide;
  Fields fields(value);
  fields.Text("line", &wide)
      .Texts("stations", &console.stations)
      .Truth("others", &console.others)
      .Truth("told", &console.told);
  const auto line = Narrowed(wide);
  if (!fields.sound() || !line || !AllPlain(console.stations)) return {};
  console.line = *line;
  const auto parsed = ParseLine(console.line);
  if (!parsed || parsed->name() != name) return {};
  console.address = AddressOf(*parsed);
  return console;
}

std::optional<ConsoleClaim> DecodeClaim(const std::string& value) {
  ConsoleClaim claim;
  Fields fields(value);
  fields.Text("station", &claim.station).Text("instance", &claim.instance);
  if (!fields.sound() || !IsPlainName(claim.station)) return {};
  return claim;
}

std::optional<FleetStation> DecodeStation(const std::string& name, const std::string& value) {
  FleetStation station;
  station.name = name;
  Fields fields(value);
  fields.Text("instance", &station.instance)
      .Text("address", &station.address)
      .Text("web", &station.web)
      .Text("version", &station.version)
      .Truth("ready", &station.ready)
      .Count("beat", &station.beat);
  if (!fields.sound() || !IsPlainName(name)) return {};
  return station;
}

std::string AddressOf(const zevctl::ConfigConsole& console) {
  return console.Text(zevctl::kFieldAddress) + ":" + console.Text(zevctl::kFieldPort);
}

std::optional<zevctl::ConfigConsole> ParseLine(const std::string& line) {
  zevctl::Findings findings;
  auto consoles = zevctl::ReadZevConf(line + " \n", "", findings);
  if (consoles.size() != 1 || findings.errors() != 0) return {};
  return std::move(consoles.front());
}

}  // namespace zevfleet
