#include "DocumentWalk.h"

#include <fcntl.h>
#include <libxml/xmlreader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "DocumentWrite.h"
#include "Escape.h"

namespace doc {
namespace {

// The top-level sections in their order; children have none.
int Section(Kind kind) {
  switch (kind) {
    case kProject:
      return 0;
    case kDomain:
      return 1;
    case kServer:
      return 2;
    case kHost:
      return 3;
    case kSubscribingTarget:
      return 4;
    case kSubscription:
      return 5;
    case kPackageDefinition:
      return 6;
    case kExternSite:
      return 7;
    case kLocalSite:
      return 8;
    default:
      return -1;
  }
}

// The identifier of an element, from its Oid attribute; valid while the
// line is.
std::string_view OidOf(const Line& line) {
  const auto& attributes = LayoutOf(line.kind).attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i)
    if (attributes[i].field == Field::kOid && line.Has(static_cast<int>(i)))
      return line.values[i];
  return std::string_view();
}

// The order of the document: the prologue, the sections in their order,
// each element under its parent, children of one kind after those of the
// kind written before them. Lines are fed as they are read.
class Structure {
 public:
  explicit Structure(Visitor& visitor) : visitor_(visitor) {}

  void Feed(const Line& line, std::size_t n) {
    const auto misplaced = [&](const std::string& what) {
      visitor_.Problem(n, what + " is out of its place");
    };
    if (stage_ == kDone) {
      visitor_.Problem(n, "a line after </AdminObjects>");
      return;
    }
    switch (line.type) {
      case Line::kDeclaration:
        if (stage_ != kDeclaration) misplaced("the XML declaration");
        stage_ = kDoctype;
        return visitor_.Other(line, n);
      case Line::kStylesheet:
        if (stage_ != kDoctype) misplaced("the stylesheet instruction");
        return visitor_.Other(line, n);
      case Line::kDoctype:
        if (stage_ != kDoctype) misplaced("the DOCTYPE");
        stage_ = kRoot;
        return visitor_.Other(line, n);
      case Line::kRootStart:
        if (stage_ != kRoot) misplaced("<AdminObjects>");
        stage_ = kInRoot;
        return visitor_.Other(line, n);
      case Line::kRootEnd:
        if (open_ != kKindCount)
          visitor_.Problem(n, std::string("</") + LayoutOf(open_).name +
                                  "> is missing before </AdminObjects>");
        stage_ = kDone;
        return visitor_.Other(line, n);
      default:
        break;
    }
    const Layout& layout = LayoutOf(line.kind);
    if (stage_ != kInRoot)
      return misplaced(std::string("<") + layout.name + ">");
    if (line.type == Line::kEnd) {
      if (open_ != line.kind)
        return misplaced(std::string("</") + layout.name + ">");
      open_ = kKindCount;
      return visitor_.Other(line, n);
    }
    Place place;
    if (layout.parent == kKindCount) {
      const int rank = Section(line.kind);
      if (open_ != kKindCount || rank < section_ ||
          (rank == section_ &&
           (line.kind == kServer || line.kind == kLocalSite)))
        return misplaced(std::string("<") + layout.name + ">");
      section_ = rank;
      place.index = topLevel_[line.kind]++;
      if (layout.hasEndTag) {
        open_ = line.kind;
        openOid_ = OidOf(line);
        children_ = 0;
        childRank_ = 0;
      }
    } else {
      const int rank = line.kind == kVaultServer ||
                               line.kind == kDataServerCaptureStatus ||
                               line.kind == kDataServerApplyStatus
                           ? 1
                           : 0;
      if (open_ != layout.parent || rank < childRank_)
        return misplaced(std::string("<") + layout.name + ">");
      childRank_ = rank;
      place.parent = openOid_;
      place.index = children_++;
    }
    visitor_.Element(line, n, place);
  }

  bool Done() const { return stage_ == kDone; }

 private:
  Visitor& visitor_;
  enum { kDeclaration, kDoctype, kRoot, kInRoot, kDone } stage_ = kDeclaration;
  int section_ = -1;
  Kind open_ = kKindCount;  // the element whose children are read
  int childRank_ = 0;
  std::string openOid_;
  std::size_t children_ = 0;
  std::size_t topLevel_[kKindCount] = {};
};

// Opens file for reading, standard input for "-"; -1 with errno set. The
// input may be read twice: standard input is first copied to a file of its
// own, removed at once.
int OpenInput(const std::string& file) {
  if (file != "-") {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(fd);
      errno = EISDIR;
      return -1;
    }
    return fd;
  }
  std::FILE* copy = std::tmpfile();
  if (!copy) return -1;
  const int fd = ::dup(::fileno(copy));
  std::fclose(copy);
  if (fd < 0) return -1;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(0, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || (got > 0 && ::write(fd, buffer,
                                       static_cast<std::size_t>(got)) != got)) {
      const int saved = errno;
      ::close(fd);
      errno = saved;
      return -1;
    }
    if (got == 0) break;
  }
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

// Errors of libxml2 for one reader: the first one, with its line.
struct XmlErrors {
  std::size_t line = 0;
  std::string message;
};

void OnXmlError(void* context, xmlErrorPtr error) {
  auto* errors = static_cast<XmlErrors*>(context);
  if (!error || !errors->message.empty()) return;
  errors->line = static_cast<std::size_t>(error->line);
  std::string message = error->message ? error->message : "not XML";
  while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
    message.pop_back();
  errors->message = "not well-formed XML: " + vantrel::Escaped(message);
}

// A libxml2 reader of fd from its start that never reads a DTD, an entity
// or anything on the network.
xmlTextReaderPtr XmlReader(int fd, XmlErrors& errors) {
  // Once per process, before any thread reads: libxml2's own set-up.
  static const bool initialised = (xmlInitParser(), true);
  (void)initialised;
  ::lseek(fd, 0, SEEK_SET);
  xmlTextReaderPtr reader =
      xmlReaderForFd(fd, nullptr, nullptr, XML_PARSE_NONET | XML_PARSE_NOCDATA);
  if (reader)
    xmlTextReaderSetStructuredErrorHandler(reader, OnXmlError, &errors);
  return reader;
}

std::string_view Text(const xmlChar* text) {
  return text ? reinterpret_cast<const char*>(text) : "";
}

// True when fd holds well-formed XML whose document element is
// AdminObjects.
bool WellFormedDocument(int fd) {
  XmlErrors errors;
  xmlTextReaderPtr reader = XmlReader(fd, errors);
  if (!reader) return false;
  bool root = false, first = true;
  int rc;
  while ((rc = xmlTextReaderRead(reader)) == 1) {
    if (first && xmlTextReaderNodeType(reader) == XML_READER_TYPE_ELEMENT) {
      root = Text(xmlTextReaderConstName(reader)) == "AdminObjects";
      first = false;
    }
  }
  xmlFreeTextReader(reader);
  return rc == 0 && root && errors.message.empty();
}

// The kind of the element named name, or kKindCount.
Kind KindNamed(std::string_view name) {
  for (int k = 0; k < kKindCount; ++k)
    if (name == LayoutOf(Kind(k)).name) return Kind(k);
  return kKindCount;
}

// The href of an xml-stylesheet instruction's text, its predefined entities
// and character references left as they are.
std::string_view Href(std::string_view data) {
  const std::size_t at = data.find("href=\"");
  if (at == std::string_view::npos) return std::string_view();
  const std::size_t from = at + 6, to = data.find('"', from);
  return data.substr(from, to == std::string_view::npos ? to : to - from);
}

// The text of an XML attribute value with its predefined entities and
// character references resolved (a processing instruction's pseudo
// attribute is not resolved by the parser).
std::string Unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out += text[i];
      continue;
    }
    const std::size_t end = text.find(';', i);
    if (end == std::string_view::npos) {
      out += text.substr(i);
      break;
    }
    const std::string_view name = text.substr(i + 1, end - i - 1);
    static const std::map<std::string_view, char> kNamed = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    if (const auto it = kNamed.find(name); it != kNamed.end()) {
      out += it->second;
    } else if (name.size() > 1 && name[0] == '#') {
      const bool hex = name[1] == 'x';
      const unsigned long code =
          std::strtoul(std::string(name.substr(hex ? 2 : 1)).c_str(), nullptr,
                       hex ? 16 : 10);
      // Only the references the twin writes stand for a byte of their own.
      if (code < 0x80) out += static_cast<char>(code);
    } else {
      out += text.substr(i, end - i + 1);
    }
    i = end;
  }
  return out;
}

// Reads fd as XML, feeding structure the lines the exporter would have
// written: the prologue, each element and each end tag.
void WalkXml(int fd, Structure& structure, Visitor& visitor) {
  XmlErrors errors;
  xmlTextReaderPtr reader = XmlReader(fd, errors);
  if (!reader) {
    visitor.Problem(0, "cannot be read as XML");
    return;
  }
  Line line;
  line.type = Line::kDeclaration;
  structure.Feed(line, 1);
  std::vector<std::string> values;
  std::string href;
  bool inRoot = false;
  int rc = 0;
  while (!visitor.Stopped() && (rc = xmlTextReaderRead(reader)) == 1) {
    const int type = xmlTextReaderNodeType(reader);
    xmlNodePtr node = xmlTextReaderCurrentNode(reader);
    const long at = node ? xmlGetLineNo(node) : -1;
    const std::size_t n = at > 0
                              ? static_cast<std::size_t>(at)
                              : static_cast<std::size_t>(
                                    xmlTextReaderGetParserLineNumber(reader));
    const std::string_view name = Text(xmlTextReaderConstName(reader));
    line.values.clear();
    line.present = 0;
    if (type == XML_READER_TYPE_PROCESSING_INSTRUCTION) {
      if (inRoot || name != "xml-stylesheet") continue;
      href = Unescaped(Href(Text(xmlTextReaderConstValue(reader))));
      line.type = Line::kStylesheet;
      line.values.emplace_back(href);
      structure.Feed(line, n);
      continue;
    }
    if (type == XML_READER_TYPE_TEXT) {
      visitor.Problem(
          n, "text between the elements: '" +
                 vantrel::Escaped(Text(xmlTextReaderConstValue(reader)), 60) +
                 "'");
      continue;
    }
    if (type == XML_READER_TYPE_END_ELEMENT) {
      if (name == "AdminObjects") {
        line.type = Line::kRootEnd;
        structure.Feed(line, n);
        inRoot = false;
        continue;
      }
      const Kind kind = KindNamed(name);
      if (kind == kKindCount || !LayoutOf(kind).hasEndTag) continue;
      line.type = Line::kEnd;
      line.kind = kind;
      structure.Feed(line, n);
      continue;
    }
    if (type != XML_READER_TYPE_ELEMENT) continue;
    const bool empty = xmlTextReaderIsEmptyElement(reader) == 1;
    if (name == "AdminObjects" && !inRoot) {
      line.type = Line::kDoctype;
      structure.Feed(line, n);
      line.type = Line::kRootStart;
      structure.Feed(line, n);
      inRoot = true;
      if (empty) {
        line.type = Line::kRootEnd;
        structure.Feed(line, n);
        inRoot = false;
      }
      continue;
    }
    const Kind kind = KindNamed(name);
    if (kind == kKindCount) {
      visitor.Problem(n, "<" + vantrel::Escaped(name, 60) +
                             "> is not an element of the document");
      continue;
    }
    const Layout& layout = LayoutOf(kind);
    values.assign(layout.attributes.size(), std::string());
    line.type = Line::kStart;
    line.kind = kind;
    bool valid = true;
    while (xmlTextReaderMoveToNextAttribute(reader) == 1) {
      const std::string_view attribute = Text(xmlTextReaderConstName(reader));
      const int i = AttributeIndex(kind, attribute);
      if (i < 0) {
        visitor.Problem(n, std::string(layout.name) + " has no attribute " +
                               vantrel::Escaped(attribute, 60));
        valid = false;
        continue;
      }
      values[i] = Text(xmlTextReaderConstValue(reader));
      line.present |= 1u << i;
      if (values[i].find_first_of("\r\n") != std::string::npos) {
        visitor.Problem(n, std::string(layout.name) + " " +
                               std::string(attribute) +
                               " holds a line break, which no store value "
                               "holds");
        valid = false;
      } else if (!ValidValue(layout.attributes[i].field, values[i])) {
        visitor.Problem(n, std::string(layout.name) + " " +
                               std::string(attribute) + " '" +
                               vantrel::Escaped(values[i], 60) +
                               "' is not a value the exporter writes there");
        valid = false;
      }
    }
    xmlTextReaderMoveToElement(reader);
    for (std::size_t i = 0; i < layout.attributes.size(); ++i)
      if (!layout.attributes[i].optional && !line.Has(static_cast<int>(i))) {
        const char* a = layout.attributes[i].name;
        visitor.Problem(n, std::string(layout.name) + " lacks its " +
                               (a[0] == ' ' ? a + 1 : a));
        valid = false;
      }
    if (!valid) continue;
    for (const std::string& value : values) line.values.emplace_back(value);
    structure.Feed(line, n);
    if (empty && layout.hasEndTag) {
      line.type = Line::kEnd;
      line.values.clear();
      line.present = 0;
      structure.Feed(line, n);
    }
  }
  if (visitor.Stopped()) {
    // Said so by the visitor.
  } else if (rc != 0) {
    visitor.Problem(errors.line, errors.message.empty() ? "not well-formed XML"
                                                        : errors.message);
  } else if (!structure.Done()) {
    visitor.Problem(
        static_cast<std::size_t>(xmlTextReaderGetParserLineNumber(reader)),
        "the document ends before </AdminObjects>");
  }
  xmlFreeTextReader(reader);
}

// Reports a value of line that holds a NUL byte, which no store value
// holds: a store loaded from it would be refused.
bool HoldsNul(const Line& line, std::size_t n, Visitor& visitor) {
  for (std::size_t i = 0; i < line.values.size(); ++i) {
    if (line.values[i].find('\0') == std::string_view::npos) continue;
    const char* name = LayoutOf(line.kind).attributes[i].name;
    visitor.Problem(n, std::string(LayoutOf(line.kind).name) + " " +
                           (name[0] == ' ' ? name + 1 : name) +
                           " holds a NUL byte, which no store value holds");
    return true;
  }
  return false;
}

// Tells, once, what a conversion did to the first line of a file: CRLF line
// ends, a byte order mark. Sets crlf and bom and strips them from text;
// false when neither is there.
bool Converted(std::string_view& text, bool& crlf, bool& bom,
               Visitor& visitor) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") {
    bom = true;
    text.remove_prefix(3);
    visitor.Problem(1,
                    "the file starts with a byte order mark, which the "
                    "exporter never writes: it was converted from this format");
  }
  if (!text.empty() && text.back() == '\r') {
    crlf = true;
    text.remove_suffix(1);
    visitor.Problem(1,
                    "the file has CRLF line ends, which the exporter never "
                    "writes: it was converted from this format");
  }
  return crlf || bom;
}

}  // namespace

Walked Walk(const std::string& file, Visitor& visitor) {
  Walked walked;
  const int fd = OpenInput(file);
  if (fd < 0) {
    walked.error = errno;
    return walked;
  }
  walked.opened = true;
  // The reader closes its own copy; fd stays for a reading as XML.
  Reader reader(::dup(fd));
  Structure structure(visitor);
  std::string_view text;
  std::string reason;
  Line line;
  bool triedXml = false;
  // A file converted from the exporter's (line ends, a byte order mark) is
  // told so once, and its lines are read as they were before.
  bool crlf = false, bom = false;
  while (!visitor.Stopped() && reader.Next(text)) {
    const std::size_t n = reader.LineNumber();
    if (crlf && !text.empty() && text.back() == '\r') text.remove_suffix(1);
    if (!ReadLine(text, line, &reason)) {
      // Not the exporter's layout: a document an XML tool wrote is read as
      // XML instead, from its start.
      if (!triedXml && WellFormedDocument(fd)) {
        walked.xml = true;
        walked.illFormed.clear();
        visitor.Restart();
        Structure again(visitor);
        WalkXml(fd, again, visitor);
        ::close(fd);
        return walked;
      }
      triedXml = true;
      if (n == 1 && Converted(text, crlf, bom, visitor) &&
          ReadLine(text, line, &reason)) {
        // Read as it was before the conversion.
      } else {
        visitor.Problem(n, reason);
        continue;
      }
    }
    if (line.type == Line::kStart && HoldsNul(line, n, visitor)) continue;
    if (walked.illFormed.empty() &&
        (line.type == Line::kStart || line.type == Line::kStylesheet)) {
      const auto& attributes = line.type == Line::kStart
                                   ? LayoutOf(line.kind).attributes
                                   : std::vector<Attribute>();
      for (std::size_t i = 0; i < line.values.size(); ++i) {
        if (!line.Has(static_cast<int>(i)) && line.type == Line::kStart)
          continue;
        const std::size_t at = IllFormedAt(line.values[i]);
        if (at == std::string_view::npos) continue;
        const char c = line.values[i][at];
        const std::string what = c == '&' || c == '<' || c == '"'
                                     ? std::string("'") + c + "'"
                                     : "a character XML 1.0 cannot carry";
        walked.illFormed =
            std::to_string(n) + ": " +
            (line.type == Line::kStylesheet
                 ? std::string("the stylesheet's path")
                 : std::string(LayoutOf(line.kind).name) + " " +
                       (attributes[i].name[0] == ' ' ? attributes[i].name + 1
                                                     : attributes[i].name)) +
            " holds " + what;
        break;
      }
    }
    structure.Feed(line, n);
  }
  if (visitor.Stopped()) {
    // Said so by the visitor.
  } else if (reader.TooLong()) {
    visitor.Problem(reader.LineNumber() + 1,
                    "a line longer than " +
                        std::to_string(Reader::maxLine >> 20) +
                        " MiB: not a document the exporter writes");
  } else if (reader.Error()) {
    visitor.Problem(reader.LineNumber(),
                    std::string("cannot be read further: ") +
                        std::strerror(reader.Error()));
  } else if (!structure.Done()) {
    visitor.Problem(reader.LineNumber(),
                    "the document ends before </AdminObjects>: an export that "
                    "failed or a file cut short");
  } else if (reader.EndedWithoutNewline()) {
    visitor.Problem(reader.LineNumber(), "the last line has no newline");
  }
  ::close(fd);
  return walked;
}

}  // namespace doc
