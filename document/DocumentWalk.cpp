#include "DocumentWalk.h"

#include <fcntl.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlreader.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "DocumentWrite.h"
#include "Escape.h"
#include "Files.h"
#include "StylesheetPath.h"

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
    // After one element out of its place, those that follow it out of
    // theirs are its consequence: told again only once one is in place.
    const auto misplaced = [&](const std::string& what,
                               const std::string& belongs = std::string()) {
      if (!derailed_)
        visitor_.Problem(n, what + " is out of its place" +
                                (belongs.empty() ? "" : ": " + belongs));
      derailed_ = true;
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
    const std::string tag = std::string("<") + layout.name + ">";
    if (stage_ != kInRoot)
      return misplaced(tag, "it belongs inside <AdminObjects>");
    if (line.type == Line::kEnd) {
      if (open_ != line.kind)
        return misplaced(std::string("</") + layout.name + ">",
                         open_ == kKindCount
                             ? "no element is open"
                             : std::string("the open element is <") +
                                   LayoutOf(open_).name + ">");
      open_ = kKindCount;
      return visitor_.Other(line, n);
    }
    Place place;
    if (layout.parent == kKindCount) {
      const int rank = Section(line.kind);
      if (open_ != kKindCount && rank >= Section(open_)) {
        // An end tag left out: said once, and the element taken as closed,
        // so that what follows is read in its place.
        if (!derailed_)
          visitor_.Problem(n, std::string("</") + LayoutOf(open_).name +
                                  "> is missing before " + tag);
        open_ = kKindCount;
      }
      if (open_ != kKindCount) return misplaced(tag, Belongs(line.kind));
      if (rank < section_ || (rank == section_ && (line.kind == kServer ||
                                                   line.kind == kLocalSite))) {
        // Still an object of the document, out of its order: read with its
        // children, so that what names them is not told as naming nothing.
        misplaced(tag, Belongs(line.kind));
      } else {
        section_ = rank;
        derailed_ = false;
      }
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
      if (open_ != layout.parent)
        return misplaced(tag, std::string("it belongs inside <") +
                                  LayoutOf(layout.parent).name + ">");
      // Out of its order among its siblings: read all the same.
      if (rank < childRank_)
        misplaced(tag, std::string("it belongs inside <") +
                           LayoutOf(layout.parent).name +
                           ">, before its children of other kinds");
      childRank_ = rank;
      place.parent = openOid_;
      place.index = children_++;
    }
    visitor_.Element(line, n, place);
  }

  bool Done() const { return stage_ == kDone; }

 private:
  // Where a top-level element belongs: its section among the others.
  static std::string Belongs(Kind kind) {
    std::string before, after;
    for (int k = 0; k < kKindCount; ++k) {
      const int rank = Section(Kind(k));
      if (rank < 0) continue;
      if (rank == Section(kind) - 1) before = LayoutOf(Kind(k)).name;
      if (rank == Section(kind) + 1) after = LayoutOf(Kind(k)).name;
    }
    std::string where = "it belongs inside <AdminObjects>";
    if (!before.empty()) where += ", after the " + before + " elements";
    if (!after.empty())
      where += std::string(before.empty() ? "," : " and") + " before the " +
               after + " elements";
    if (kind == kServer || kind == kLocalSite) where += ", and only once";
    return where;
  }
  Visitor& visitor_;
  enum { kDeclaration, kDoctype, kRoot, kInRoot, kDone } stage_ = kDeclaration;
  int section_ = -1;
  Kind open_ = kKindCount;  // the element whose children are read
  int childRank_ = 0;
  std::string openOid_;
  std::size_t children_ = 0;
  std::size_t topLevel_[kKindCount] = {};
  bool derailed_ = false;
};

// Opens file for reading, standard input for "-"; -1 with errno set. The
// input may be read twice: standard input is first copied to a file of its
// own, removed at once.
int OpenInput(const std::string& file, bool* temporary) {
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
  const int fd = vantrel::AnonymousFile();
  if (fd < 0) {
    *temporary = true;
    return -1;
  }
  const vantrel::Copied copied =
      vantrel::CopyFile(STDIN_FILENO, fd, kMaxDocumentBytes);
  if (copied != vantrel::Copied::kWhole) {
    const int saved = errno;
    ::close(fd);
    *temporary = copied == vantrel::Copied::kWriteFailed;
    errno = saved;
    return -1;
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
  // A warning (an entity the document never declared, among them) is
  // taken as an error: a value it touches would not be read exactly.
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
  QuietXmlErrors();
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

// The line of fd where text first stands, or 0.
std::size_t LineOf(int fd, std::string_view text) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_size == 0) return 0;
  const auto size = static_cast<std::size_t>(st.st_size);
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (map == MAP_FAILED) return 0;
  const std::string_view bytes(static_cast<const char*>(map), size);
  const std::size_t at = bytes.find(text);
  const std::size_t line =
      at == std::string_view::npos
          ? 0
          : 1 + static_cast<std::size_t>(
                    std::count(bytes.begin(), bytes.begin() + at, '\n'));
  ::munmap(map, size);
  return line;
}

// True when fd holds well-formed XML whose document element is
// AdminObjects, with no entity declared in the document itself (an entity
// can stand for more text than any document holds); else false with the
// reason and its line in errors, when there is one.
bool WellFormedDocument(int fd, XmlErrors& errors) {
  xmlTextReaderPtr reader = XmlReader(fd, errors);
  if (!reader) return false;
  bool root = false, first = true;
  int rc = -1;
  xmlDoc* document = nullptr;
  while (errors.message.empty() && (rc = xmlTextReaderRead(reader)) == 1) {
    const int type = xmlTextReaderNodeType(reader);
    if (type == XML_READER_TYPE_DOCUMENT_TYPE) {
      // The document is the caller's once asked for: freed below.
      if (!document) document = xmlTextReaderCurrentDoc(reader);
      const xmlDtd* dtd = document ? document->intSubset : nullptr;
      if (dtd && (dtd->entities || dtd->pentities)) {
        errors.line = LineOf(fd, "<!ENTITY");
        errors.message =
            "the DOCTYPE declares entities, which no document of this format "
            "holds: an entity can stand for more text than the document";
      }
    }
    if (first && type == XML_READER_TYPE_ELEMENT) {
      root = Text(xmlTextReaderConstName(reader)) == "AdminObjects";
      first = false;
    }
  }
  xmlFreeTextReader(reader);
  xmlFreeDoc(document);
  return rc == 0 && root && errors.message.empty();
}

// The most attributes of one element read as XML: far above any element
// of the format, and a bound for a parser that compares each with the
// others.
constexpr std::size_t kMaxAttributes = 256;

// Reads the bytes of the well-formed XML in fd as an XML reader would not
// tell them: an attribute value holding a raw tab or line break (which XML
// reading changes to a blank) is a problem of its line; an element with
// more than kMaxAttributes attributes ends the reading. False when the
// reading must not go on.
bool ScanRaw(int fd, Visitor& visitor) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_size == 0) return true;
  const auto size = static_cast<std::size_t>(st.st_size);
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (map == MAP_FAILED) return true;  // the parser reads it as it is
  const std::string_view text(static_cast<const char*>(map), size);
  const auto skip = [&](std::size_t& i, std::size_t& line,
                        std::string_view end) {
    const std::size_t at = text.find(end, i);
    const std::size_t to =
        at == std::string_view::npos ? size : at + end.size();
    for (; i < to; ++i) line += text[i] == '\n';
  };
  std::size_t line = 1;
  bool go = true;
  for (std::size_t i = 0; i < size && go;) {
    if (text[i] != '<') {
      line += text[i++] == '\n';
      continue;
    }
    if (text.compare(i, 4, "<!--") == 0) {
      skip(i, line, "-->");
    } else if (text.compare(i, 2, "<?") == 0) {
      skip(i, line, "?>");
    } else if (text.compare(i, 9, "<![CDATA[") == 0) {
      skip(i, line, "]]>");
    } else if (text.compare(i, 2, "<!") == 0) {
      // The DOCTYPE, with an internal subset in brackets.
      const std::size_t bracket = text.find_first_of("[>", i);
      skip(i, line,
           bracket != std::string_view::npos && text[bracket] == '[' ? "]>"
                                                                     : ">");
    } else {
      // A tag: its attribute values between their quotes.
      const std::size_t start = line;
      std::size_t attributes = 0;
      char quote = 0;
      bool told = false;
      for (++i; i < size; ++i) {
        const char c = text[i];
        if (quote) {
          if (c == quote) {
            quote = 0;
            told = false;
          } else if ((c == '\t' || c == '\n' || c == '\r') && !told) {
            visitor.Problem(line,
                            std::string("a value holds a raw ") +
                                (c == '\t' ? "tab" : "line break") +
                                ", which reading XML would change to a "
                                "blank: write it as a character reference");
            told = true;
          }
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '=' && ++attributes > kMaxAttributes) {
          visitor.Problem(start, "an element with more than " +
                                     std::to_string(kMaxAttributes) +
                                     " attributes: not a document the "
                                     "exporter writes");
          go = false;
          break;
        } else if (c == '>') {
          ++i;
          break;
        }
        line += c == '\n';
      }
    }
  }
  ::munmap(map, size);
  return go;
}

// The kind of the element named name, or kKindCount.
Kind KindNamed(std::string_view name) {
  for (int k = 0; k < kKindCount; ++k)
    if (name == LayoutOf(Kind(k)).name) return Kind(k);
  return kKindCount;
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
  // For each element open around the one read: true for one of a kind that
  // holds no element.
  std::vector<bool> leaves;
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
      href = StylesheetPath(Text(xmlTextReaderConstValue(reader)));
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
      if (!leaves.empty()) leaves.pop_back();
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
    const bool nested = !leaves.empty() && leaves.back();
    if (!empty) {
      const Kind k = KindNamed(name);
      leaves.push_back(k != kKindCount && !LayoutOf(k).hasEndTag);
    }
    if (nested) {
      visitor.Problem(n, "<" + vantrel::Escaped(name, 60) +
                             "> is nested in an element that holds none");
      continue;
    }
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
      // Tools that read the document type write a list of identifiers
      // without its last blank: the same list.
      if (layout.attributes[i].field == Field::kRefs && !values[i].empty() &&
          values[i].back() != ' ')
        values[i] += ' ';
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
    visitor.Problem(n, std::string(LayoutOf(line.kind).name) + " " + name +
                           " holds a NUL byte, which no store value holds");
    return true;
  }
  return false;
}

// What a conversion did to the first line of a file: CRLF line ends, a
// byte order mark, stripped from text; false when neither is there.
bool Converted(std::string_view& text, bool& crlf, bool& bom) {
  bom = text.substr(0, 3) == "\xEF\xBB\xBF";
  if (bom) text.remove_prefix(3);
  crlf = !text.empty() && text.back() == '\r';
  if (crlf) text.remove_suffix(1);
  return crlf || bom;
}

// Tells, once, what a conversion did to a file.
void TellConverted(bool crlf, bool bom, Visitor& visitor) {
  if (bom)
    visitor.Problem(1,
                    "the file starts with a byte order mark, which the "
                    "exporter never writes: it was converted from this format");
  if (crlf)
    visitor.Problem(1,
                    "the file has CRLF line ends, which the exporter never "
                    "writes: it was converted from this format");
}

void Silent(void*, const char*, ...) {}
void SilentStructured(void*, xmlErrorPtr) {}

}  // namespace

void QuietXmlErrors() {
  xmlSetGenericErrorFunc(nullptr, Silent);
  xmlSetStructuredErrorFunc(nullptr, SilentStructured);
}

Walked Walk(const std::string& file, Visitor& visitor) {
  Walked walked;
  const int fd = OpenInput(file, &walked.temporary);
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
  bool crlf = false, bom = false, untold = false;
  while (!visitor.Stopped() && reader.Next(text)) {
    const std::size_t n = reader.LineNumber();
    if (crlf && !text.empty() && text.back() == '\r') text.remove_suffix(1);
    std::string_view converted = text;
    if (ReadLine(text, line, &reason)) {
      // In the exporter's layout.
    } else if (n == 1 && Converted(converted, crlf, bom) &&
               ReadLine(converted, line, &reason)) {
      // Read as it was before the conversion, its values as they were; told
      // once the next line is read so too (an XML tool's file is read as
      // XML, where neither matters).
      untold = true;
    } else if (!triedXml) {
      triedXml = true;
      // Not the exporter's layout: a document an XML tool wrote is read as
      // XML instead, from its start.
      XmlErrors errors;
      if (WellFormedDocument(fd, errors)) {
        walked.xml = true;
        walked.illFormed.clear();
        visitor.Restart();
        Structure again(visitor);
        if (ScanRaw(fd, visitor)) WalkXml(fd, again, visitor);
        ::close(fd);
        return walked;
      }
      // Neither reading. A file whose prologue is not the exporter's is
      // XML that a tool wrote, when the parser reads further: its reason
      // names the fault, alone.
      if (errors.line > n && n <= 3) {
        walked.xml = true;
        walked.illFormed.clear();
        visitor.Restart();
        visitor.Problem(errors.line, errors.message.empty()
                                         ? "not well-formed XML"
                                         : errors.message);
        ::close(fd);
        return walked;
      }
      visitor.Problem(n, reason);
      continue;
    } else {
      visitor.Problem(n, reason);
      continue;
    }
    if (untold && n > 1) {
      TellConverted(crlf, bom, visitor);
      untold = false;
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
        walked.illFormed = std::to_string(n) + ": " +
                           (line.type == Line::kStylesheet
                                ? std::string("the stylesheet's path")
                                : std::string(LayoutOf(line.kind).name) + " " +
                                      attributes[i].name) +
                           " holds " + what;
        break;
      }
    }
    structure.Feed(line, n);
  }
  if (untold) TellConverted(crlf, bom, visitor);
  if (visitor.Stopped()) {
    // Said so by the visitor.
  } else if (reader.TooLong()) {
    visitor.Problem(reader.LineNumber() + 1,
                    "a line longer than " +
                        std::to_string(Reader::kMaxLine >> 20) +
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
