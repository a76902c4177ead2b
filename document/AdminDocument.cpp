#include "AdminDocument.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Escape.h"

namespace doc {
namespace {

constexpr Field T = Field::kText, O = Field::kOid, R = Field::kRef,
                L = Field::kRefs, M = Field::kMedia, F = Field::kFlag;

// The attributes by what they hold, with the column that keeps them.
Attribute Id() { return {"Oid", O, false, "", "oid", false, false, false}; }
Attribute Text(const char* name, const char* column) {
  return {name, T, false, "", column, false, false, false};
}
Attribute Ref(const char* name, const char* kinds, const char* column,
              bool optional) {
  return {name, R, optional, kinds, column, false, false, false};
}
// a as state the system keeps up as it runs, not configuration.
Attribute RunTime(Attribute a) {
  a.runTime = true;
  return a;
}
// a as a value that may hold a secret (a password in a connection string).
Attribute Secret(Attribute a) {
  a.secret = true;
  return a;
}
// A list of identifiers, kept as rows of a link table.
Attribute Refs(const char* name, const char* kinds, const char* linkTable) {
  return {name, L, true, kinds, linkTable, false, false, false};
}

// An element of its own table, any number of them, nothing implied.
Layout Element(const char* name, Kind parent, int depth,
               std::vector<Attribute> attributes, const char* closer,
               bool hasEndTag, const char* table) {
  return {name,    parent,    depth, std::move(attributes),
          closer,  hasEndTag, false, table,
          nullptr, nullptr};
}

// A subscribing target or a subscription: the same attributes.
Layout Set(const char* name, const char* table) {
  return Element(name, kKindCount, 0,
                 {Id(),
                  Text("Name", "name"),
                  {"Media", M, true, "", "media", false, false, false},
                  Ref("PackageDefinition", "PACKAGEDEFINITION",
                      "package_definition", true),
                  Ref("ExternSite", "EXTERNSITE", "extern_site", true)},
                 "\" >", true, table);
}

// A capture or apply status of parent, naming its server in object.
Layout Status(const char* name, Kind parent, const char* object,
              const char* server, const char* table) {
  return Element(name, parent, 1,
                 {Id(),
                  RunTime(Text("LastSuccessfulDate", "last_successful_date")),
                  Ref(object, server, "server", false)},
                 "\" />", false, table);
}

// The writing rules of the exporter, element by element: the attributes in
// the order it writes them and the closer it ends them with, and the store
// columns they come from. Every value but the first follows `" Name="` (two
// blanks before a data domain's Oid); identifiers follow an "x", lists do
// not.
const Layout kLayouts[kKindCount] = {
    Element("PROJECT", kKindCount, 0,
            {Text("Name", "name"), Id(),
             Refs("VaultServers", "VAULTSERVER", "project_vault_server"),
             Refs("DataServers", "DATASERVER", "project_data_server")},
            "\">", true, "project"),
    {"DATARDB",
     kProject,
     1,
     {Text("Name", "name"),
      Text("AliasName", "alias_name"),
      {"Oid", O, false, "", "oid", true, false, false},
      Text("OwnerDico", "owner_dico"),
      Ref("BusinessDomain", "BUSINESSDOMAIN", "business_domain", false),
      Text("Driver", "driver"),
      Ref("DataServer", "DATASERVER", "data_server", true)},
     "\" />",
     false,
     false,
     "data_domain",
     "kind",
     "rdb"},
    Element("DOMAIN", kKindCount, 0,
            {Text("Name", "name"),
             {"Visible", F, false, "", "visible", false, false, false},
             Id()},
            "\">", true, "domain"),
    Element("BUSINESSDOMAIN", kDomain, 1,
            {Id(), Text("Name", "name"), Text("MetaDataName", "meta_data_name"),
             Text("Editor", "editor"), Text("CorvelFlag", "corvel_flag"),
             Text("DataModeler", "data_modeler")},
            "\"/>", false, "business_domain"),
    {"SERVER", kKindCount, 0, {}, ">", true, true, nullptr, nullptr, nullptr},
    Element(
        "DATASERVER", kServer, 0,
        {Id(), Text("Name", "name"), Text("Authentication", "authentication"),
         Text("DBMS", "dbms"), Secret(Text("ConnectionString", "connection_string")),
         Ref("Host", "HOST", "host", true)},
        "\"/>", false, "data_server"),
    Element("VAULTSERVER", kServer, 0,
            {Id(), Text("Name", "name"), Text("AliasName", "alias_name")},
            "\"/>", false, "vault_server"),
    Element("HOST", kKindCount, 0,
            {Id(), Text("Name", "name"), Text("OSType", "os_type"),
             Text("OSVersion", "os_version")},
            "\"/>", false, "host"),
    Set("SUBSCRIBINGTARGET", "subscribing_target"),
    Status("VAULTSERVERCAPTURESTATUS", kSubscribingTarget, "CapturedObject",
           "VAULTSERVER", "capture_status"),
    Status("DATASERVERCAPTURESTATUS", kSubscribingTarget, "CapturedObject",
           "DATASERVER", "capture_status"),
    Set("SUBSCRIPTION", "subscription"),
    Status("VAULTSERVERAPPLYSTATUS", kSubscription, "AppliedObject",
           "VAULTSERVER", "apply_status"),
    Status("DATASERVERAPPLYSTATUS", kSubscription, "AppliedObject",
           "DATASERVER", "apply_status"),
    Element("PACKAGEDEFINITION", kKindCount, 0,
            {Id(), Text("Name", "name"),
             Refs("WholeDataDomains", "DATARDB", "package_whole_data_domain")},
            "\" />", false, "package_definition"),
    Element("EXTERNSITE", kKindCount, 0, {Id(), Text("Name", "name")}, "\"/>",
            false, "extern_site"),
    {"LOCALSITE",
     kKindCount,
     0,
     {Id(), Text("Name", "name")},
     "\"/>",
     false,
     true,
     "local_site",
     nullptr,
     nullptr},
};

// The attribute's name as written, after its blanks; its value follows an
// "x" when it is an identifier.
std::string Delimiter(const Attribute& a, bool first, bool loose = false) {
  std::string d = first ? std::string() : std::string("\" ");
  if (a.spaced) d += ' ';
  d += a.name;
  d += "=\"";
  if (!loose && (a.field == O || a.field == R || a.field == M)) d += 'x';
  return d;
}

bool Hex(std::string_view s) {
  if (s.empty() || s.size() % 2) return false;
  for (char c : s)
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

bool Valid(Field field, std::string_view value) {
  switch (field) {
    case O:
    case R:
    case M:
      return Hex(value);
    case F:
      return value == "Y" || value == "N";
    case L: {
      if (value.empty()) return false;
      while (!value.empty()) {
        const std::size_t blank = value.find(' ');
        if (blank == std::string_view::npos || value[0] != 'x' ||
            !Hex(value.substr(1, blank - 1)))
          return false;
        value.remove_prefix(blank + 1);
      }
      return true;
    }
    default:
      return true;
  }
}

enum class Fit { kNone, kOne, kMany };

// Reads body as values separated by delimiters. The reading is unique when
// the leftmost and the rightmost placements of the delimiters agree.
Fit Place(std::string_view body, const std::vector<std::string>& delimiters,
          std::vector<std::string_view>& values) {
  const std::size_t n = delimiters.size();
  std::size_t left[8] = {}, right[8] = {};
  std::size_t from = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t at = body.find(delimiters[i], from);
    if (at == std::string_view::npos) return Fit::kNone;
    left[i] = at;
    from = at + delimiters[i].size();
  }
  std::size_t to = body.size();
  for (std::size_t i = n; i-- > 0;) {
    if (to < delimiters[i].size()) return Fit::kNone;
    const std::size_t at = body.rfind(delimiters[i], to - delimiters[i].size());
    if (at == std::string_view::npos) return Fit::kNone;
    right[i] = at;
    to = at;
  }
  for (std::size_t i = 0; i < n; ++i)
    if (left[i] != right[i]) return Fit::kMany;
  values.clear();
  std::size_t start = 0;
  for (std::size_t i = 0; i < n; ++i) {
    values.push_back(body.substr(start, left[i] - start));
    start = left[i] + delimiters[i].size();
  }
  values.push_back(body.substr(start));
  return Fit::kOne;
}

// The ways the exporter can write one element: for each combination of its
// optional attributes, the text up to the first value and the delimiters
// before the others; and the texts that start its attributes.
struct Variant {
  std::uint32_t present;
  std::string head;
  std::vector<std::string> delimiters;
};
struct Grammar {
  std::vector<Variant> variants;
  std::vector<std::string> starts;
};

// The grammars of the exporter's lines; loose ones read identifiers as
// texts, with their "x", to tell what is wrong with one.
const Grammar& GrammarOf(Kind kind, bool loose = false) {
  static const auto make = [](bool looseReading) {
    std::vector<Grammar> all(kKindCount);
    for (int k = 0; k < kKindCount; ++k) {
      const Layout& layout = kLayouts[k];
      std::vector<int> optional;
      for (std::size_t i = 0; i < layout.attributes.size(); ++i) {
        if (layout.attributes[i].optional)
          optional.push_back(static_cast<int>(i));
        all[k].starts.push_back(
            Delimiter(layout.attributes[i], false, /*loose=*/true));
      }
      for (int variant = 0; variant < (1 << optional.size()); ++variant) {
        Variant v{(1u << layout.attributes.size()) - 1,
                  std::string("<") + layout.name + " ",
                  {}};
        for (std::size_t o = 0; o < optional.size(); ++o)
          if (!((variant >> o) & 1)) v.present &= ~(1u << optional[o]);
        bool first = true;
        for (std::size_t i = 0; i < layout.attributes.size(); ++i) {
          if (!((v.present >> i) & 1)) continue;
          if (first)
            v.head += Delimiter(layout.attributes[i], true, looseReading);
          else
            v.delimiters.push_back(
                Delimiter(layout.attributes[i], false, looseReading));
          first = false;
        }
        all[k].variants.push_back(std::move(v));
      }
    }
    return all;
  };
  static const std::vector<Grammar> exact = make(false), lenient = make(true);
  return (loose ? lenient : exact)[kind];
}

// What keeps value (an identifier with its "x") from being an identifier,
// or "".
std::string NotAnIdentifier(std::string_view value) {
  const std::string shown = "'" + vantrel::Escaped(value, 60) + "'";
  if (value.empty() || value[0] != 'x')
    return shown + " is not an identifier: it does not start with x";
  value.remove_prefix(1);
  for (char c : value)
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')))
      return shown + " is not an identifier: '" +
             vantrel::Escaped(std::string_view(&c, 1)) +
             "' is not an upper-case hexadecimal digit";
  if (value.empty()) return shown + " is not an identifier: it has no digits";
  if (value.size() % 2)
    return shown + " is not an identifier: an odd number of hexadecimal digits";
  return std::string();
}

// What is wrong with value of attribute a, read loosely, or "".
std::string ValueProblem(const Attribute& a, std::string_view value) {
  switch (a.field) {
    case O:
    case R:
    case M:
      return NotAnIdentifier(value);
    case F:
      return value == "Y" || value == "N"
                 ? std::string()
                 : "'" + vantrel::Escaped(value, 60) + "' is neither Y nor N";
    case L: {
      if (value.empty() || value.back() != ' ')
        return "'" + vantrel::Escaped(value, 60) +
               "' is not a list of identifiers, each followed by a blank";
      for (std::string_view id : Identifiers(value.substr(0, value.size() - 1)))
        if (std::string problem = NotAnIdentifier(id); !problem.empty())
          return problem;
      return std::string();
    }
    default:
      return std::string();
  }
}

// Reads the usual line at once: every value free of quotes and of "=", so
// that each quote of the line belongs to a delimiter. Such a line has one
// reading only: another placement of the delimiters would need a quote
// inside a value, and leaving an attribute out would put its delimiter,
// quotes and all, inside the value before it. False when the line is not of
// that form, for the full reading to judge.
bool ReadPlain(std::string_view text, Kind kind, Line& line) {
  const Layout& layout = kLayouts[kind];
  const std::size_t nameSize = std::strlen(layout.name);
  const std::size_t closerSize = std::strlen(layout.closer);
  // "<NAME " has been checked by the caller.
  std::size_t at = nameSize + 2;
  const std::size_t end = text.size();
  if (end < at + closerSize ||
      text.compare(end - closerSize, closerSize, layout.closer) != 0)
    return false;
  line.values.assign(layout.attributes.size(), std::string_view());
  line.present = 0;
  const std::size_t count = layout.attributes.size();
  for (std::size_t i = 0; i < count; ++i) {
    const Attribute& a = layout.attributes[i];
    // The attribute's name and "=\"" at this point, or else it must be an
    // optional one left out.
    const std::size_t size = std::strlen(a.name);
    const bool first = line.present == 0;
    // After "\" ", or "\"  " for an attribute written after two blanks.
    const std::size_t gap = a.spaced ? 3 : 2;
    const std::size_t from = first ? at : at + gap;
    const bool named =
        (first || (text.compare(at, gap, a.spaced ? "\"  " : "\" ") == 0)) &&
        text.compare(from, size, a.name) == 0 &&
        text.compare(from + size, 2, "=\"") == 0;
    if (!named) {
      if (a.optional) continue;
      return false;
    }
    std::size_t start = from + size + 2;
    const bool identifier = a.field == O || a.field == R || a.field == M;
    if (identifier && (start >= end || text[start] != 'x')) return false;
    const std::size_t quote = text.find('"', start + identifier);
    if (quote == std::string_view::npos || quote + closerSize > end)
      return false;
    const std::string_view value =
        text.substr(start + identifier, quote - start - identifier);
    if (value.find('=') != std::string_view::npos || !Valid(a.field, value))
      return false;
    line.values[i] = identifier ? text.substr(start, quote - start) : value;
    line.present |= 1u << i;
    at = quote;
  }
  // The last value's quote begins the closer, which ends the line.
  if (at != end - closerSize || line.present == 0) return false;
  line.type = Line::kStart;
  line.kind = kind;
  return true;
}

// The readings of an element line that fit its grammar. A reading is
// clean when no text value holds the text that starts an attribute of the
// element: the exporter's own lines read so, in one way. Readings that fit
// but a value holds a delimiter or an attribute's text: the line is
// ambiguous, not merely wrong.
struct Readings {
  int clean = 0, ambiguous = 0, badValue = 0;
  std::vector<std::string_view> found;  // the values of a clean one
  std::uint32_t present = 0;
};

// True when text has the head of variant v and the closer of its layout.
bool Framed(std::string_view text, const Variant& v, const Layout& layout,
            std::size_t closer) {
  return text.size() >= v.head.size() + closer &&
         text.compare(0, v.head.size(), v.head) == 0 &&
         text.compare(text.size() - closer, closer, layout.closer) == 0;
}

// The values of text between variant v's head and the closer, placed.
Fit PlaceValues(std::string_view text, const Variant& v, std::size_t closer,
                std::vector<std::string_view>& values) {
  return Place(text.substr(v.head.size(), text.size() - v.head.size() - closer),
               v.delimiters, values);
}

Readings ReadingsOf(std::string_view text, Kind kind) {
  const Layout& layout = kLayouts[kind];
  const Grammar& grammar = GrammarOf(kind);
  const std::size_t closer = std::strlen(layout.closer);
  Readings r;
  std::vector<std::string_view> values;
  for (const Variant& v : grammar.variants) {
    if (!Framed(text, v, layout, closer)) continue;
    const Fit fit = PlaceValues(text, v, closer, values);
    if (fit == Fit::kNone) continue;
    if (fit == Fit::kMany) {  // a value holds a delimiter
      ++r.ambiguous;
      continue;
    }
    bool valid = true, holdsStart = false;
    for (std::size_t i = 0, n = 0; i < layout.attributes.size() && valid; ++i) {
      if (!((v.present >> i) & 1)) continue;
      const std::string_view value = values[n++];
      valid = Valid(layout.attributes[i].field, value);
      if (layout.attributes[i].field != Field::kText || !valid) continue;
      if (value.find("\" ") == std::string_view::npos) continue;
      for (const std::string& start : grammar.starts)
        holdsStart = holdsStart || value.find(start) != std::string_view::npos;
      valid = !holdsStart;
    }
    if (holdsStart) ++r.ambiguous;
    if (!valid && !holdsStart) ++r.badValue;
    if (!valid) continue;
    ++r.clean;
    r.found = values;
    r.present = v.present;
  }
  return r;
}

// Why text, which no reading fits, is not an element of kind: a value the
// exporter never writes is named when a reading with identifiers as texts
// finds it.
std::string NoReading(std::string_view text, Kind kind) {
  const Layout& layout = kLayouts[kind];
  const Grammar& grammar = GrammarOf(kind);
  const std::size_t closer = std::strlen(layout.closer);
  std::vector<std::string_view> loose;
  for (const Variant& v : GrammarOf(kind, true).variants) {
    if (!Framed(text, v, layout, closer) ||
        PlaceValues(text, v, closer, loose) != Fit::kOne)
      continue;
    // Only a reading in which no value holds another attribute's text.
    bool holdsStart = false;
    for (std::string_view value : loose)
      for (const std::string& start : grammar.starts)
        holdsStart = holdsStart || value.find(start) != std::string_view::npos;
    if (holdsStart) continue;
    for (std::size_t i = 0, n = 0; i < layout.attributes.size(); ++i) {
      if (!((v.present >> i) & 1)) continue;
      const std::string problem =
          ValueProblem(layout.attributes[i], loose[n++]);
      if (problem.empty()) continue;
      return std::string(layout.name) + " " + layout.attributes[i].name + " " +
             problem;
    }
  }
  return std::string("not a ") + layout.name +
         " element as the exporter writes it";
}

// Reads an element line of layout (its indentation already checked).
bool ReadElement(std::string_view text, Kind kind, Line& line,
                 std::string* reason) {
  const Layout& layout = kLayouts[kind];
  const Readings r = ReadingsOf(text, kind);
  if (r.clean > 1 || (r.clean == 0 && r.badValue == 0 && r.ambiguous > 0)) {
    *reason = std::string("ambiguous ") + layout.name +
              " element: a value holds the text of an attribute, so that "
              "more than one reading fits";
    return false;
  }
  if (r.clean == 0) {
    *reason = NoReading(text, kind);
    return false;
  }
  line.type = Line::kStart;
  line.kind = kind;
  line.present = r.present;
  line.values.assign(layout.attributes.size(), std::string_view());
  for (std::size_t i = 0, v = 0; i < layout.attributes.size(); ++i) {
    if (!((r.present >> i) & 1)) continue;
    const Field field = layout.attributes[i].field;
    const std::string_view value = r.found[v++];
    // An identifier's "x" ends its delimiter, just before the value.
    line.values[i] = field == O || field == R || field == M
                         ? std::string_view(value.data() - 1, value.size() + 1)
                         : value;
  }
  return true;
}

}  // namespace

const char kDeclarationLine[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>";
const char kStylesheetOpener[] = "<?xml-stylesheet type=\"text/xsl\" href=\"";
const char kStylesheetCloser[] = "\" ?>";
const char kDoctypeLine[] = "<!DOCTYPE AdminObjects SYSTEM \"KivAdmin.dtd\" >";

const Layout& LayoutOf(Kind kind) { return kLayouts[kind]; }

std::uint32_t RunTimeAttributes(Kind kind) {
  static const auto masks = [] {
    std::array<std::uint32_t, kKindCount> bits{};
    for (int k = 0; k < kKindCount; ++k)
      for (std::size_t i = 0; i < kLayouts[k].attributes.size(); ++i)
        if (kLayouts[k].attributes[i].runTime) bits[k] |= 1u << i;
    return bits;
  }();
  return masks[kind];
}

Kind KindNamed(std::string_view name) {
  for (int k = 0; k < kKindCount; ++k)
    if (name == LayoutOf(Kind(k)).name) return Kind(k);
  return kKindCount;
}

int AttributeIndex(Kind kind, std::string_view name) {
  const auto& attributes = LayoutOf(kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    if (name == attributes[i].name) return static_cast<int>(i);
  }
  return -1;
}

namespace {

// Where each kind's layout holds attribute name, looked up once.
template <const char* kName>
int CachedIndex(Kind kind) {
  static const auto at = [] {
    std::array<int, kKindCount> each{};
    for (std::size_t k = 0; k < kKindCount; ++k)
      each[k] = AttributeIndex(static_cast<Kind>(k), kName);
    return each;
  }();
  return at[kind];
}
constexpr char kOidName[] = "Oid", kNameName[] = "Name";

}  // namespace

int OidIndex(Kind kind) { return CachedIndex<kOidName>(kind); }
int NameIndex(Kind kind) { return CachedIndex<kNameName>(kind); }

bool ValidValue(Field field, std::string_view value) {
  const bool identifier = field == O || field == R || field == M;
  if (identifier) {
    if (value.empty() || value[0] != 'x') return false;
    value.remove_prefix(1);
  }
  return Valid(field, value);
}

std::vector<std::string_view> Identifiers(std::string_view refs) {
  std::vector<std::string_view> ids;
  while (!refs.empty()) {
    const std::size_t blank = refs.find(' ');
    ids.push_back(refs.substr(0, blank));
    if (blank == std::string_view::npos) break;
    refs.remove_prefix(blank + 1);
  }
  return ids;
}

bool ReadLine(std::string_view text, Line& line, std::string* reason,
              bool plain) {
  line.kind = kKindCount;
  line.values.clear();
  line.present = 0;
  if (text == kDeclarationLine) return line.type = Line::kDeclaration, true;
  if (text == kDoctypeLine) return line.type = Line::kDoctype, true;
  if (text == "<AdminObjects>") return line.type = Line::kRootStart, true;
  if (text == "</AdminObjects>") return line.type = Line::kRootEnd, true;
  const std::size_t opener = std::strlen(kStylesheetOpener);
  const std::size_t closer = std::strlen(kStylesheetCloser);
  if (text.size() >= opener + closer &&
      text.substr(0, opener) == kStylesheetOpener &&
      text.substr(text.size() - closer) == kStylesheetCloser) {
    line.type = Line::kStylesheet;
    line.values.emplace_back(
        text.substr(opener, text.size() - opener - closer));
    return true;
  }
  std::size_t blanks = 0;
  while (blanks < text.size() && text[blanks] == ' ') ++blanks;
  const std::string_view tag = text.substr(blanks);
  // The element's name: after "<" or "</", up to a blank or ">".
  const bool end = tag.size() > 2 && tag[0] == '<' && tag[1] == '/';
  const std::size_t from = end ? 2 : 1;
  const std::size_t to = tag.find_first_of(" >", from);
  if (tag.empty() || tag[0] != '<' || to == std::string_view::npos) {
    *reason = "not a line of the document";
    return false;
  }
  const std::string_view name = tag.substr(from, to - from);
  for (int k = 0; k < kKindCount; ++k) {
    const Layout& layout = kLayouts[k];
    if (name != layout.name) continue;
    const bool closed = tag[to] == '>' && to + 1 == tag.size();
    const bool bare = !end && closed && layout.attributes.empty();
    if (end ? !(closed && layout.hasEndTag) : !(bare || tag[to] == ' ')) break;
    // End tags and the server wrapper stand in the first column.
    const std::size_t want =
        end || bare ? 0 : static_cast<std::size_t>(2 * layout.depth);
    if (blanks != want) {
      *reason = std::string(layout.name) + " indented by " +
                std::to_string(blanks) + " blanks, not " + std::to_string(want);
      return false;
    }
    line.kind = Kind(k);
    if (end) return line.type = Line::kEnd, true;
    if (bare) return line.type = Line::kStart, true;
    if (plain && ReadPlain(tag, Kind(k), line)) return true;
    return ReadElement(tag, Kind(k), line, reason);
  }
  *reason = "not a line of the document";
  return false;
}

Reader::Reader(int fd) : fd_(fd), buffer_(1 << 16) {}

Reader::~Reader() {
  if (fd_ >= 0) ::close(fd_);
}

bool Reader::Next(std::string_view& text) {
  for (;;) {
    const char* from = buffer_.data() + begin_;
    if (const void* newline = std::memchr(from, '\n', end_ - begin_)) {
      const std::size_t size =
          static_cast<std::size_t>(static_cast<const char*>(newline) - from);
      text = std::string_view(from, size);
      begin_ += size + 1;
      ++number_;
      return true;
    }
    if (eof_) {
      if (begin_ == end_) return false;
      text = std::string_view(from, end_ - begin_);
      begin_ = end_;
      ++number_;
      noNewline_ = true;
      return true;
    }
    // The part of a line read so far moves to the front; a line as long as
    // the buffer doubles it.
    std::memmove(buffer_.data(), from, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    if (end_ == buffer_.size()) {
      if (buffer_.size() >= kMaxLine) {
        tooLong_ = true;
        return false;
      }
      buffer_.resize(std::min(2 * buffer_.size(), kMaxLine + 1));
    }
    const ssize_t got =
        ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error_ = errno;
    if (got <= 0)
      eof_ = true;
    else
      end_ += static_cast<std::size_t>(got);
  }
}

bool StartsLikeDocument(std::string_view head) {
  if (head.empty()) return true;
  // The declaration first, then within a few lines the document type or
  // element: a store, or any other file, never begins so.
  if (head.substr(0, 5) != "<?xml" && head.substr(0, 8) != "\xEF\xBB\xBF<?xml")
    return false;
  return head.find("<!DOCTYPE AdminObjects") != std::string_view::npos ||
         head.find("<AdminObjects") != std::string_view::npos;
}

}  // namespace doc
