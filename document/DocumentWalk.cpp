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
    if (stage_ == kDone) {
      visitor_.Problem(n, "a line after </AdminObjects>");
      return;
    }
    if (FeedFrame(line, n)) return;
    const Layout& layout = LayoutOf(line.kind);
    const std::string tag = std::string("<") + layout.name + ">";
    if (stage_ != kInRoot)
      return Misplaced(n, tag, "it belongs inside <AdminObjects>");
    if (line.type == Line::kEnd) {
      if (open_ != line.kind)
        return Misplaced(n, std::string("</") + layout.name + ">",
                         open_ == kKindCount
                             ? "no element is open"
                             : std::string("the open element is <") +
                                   LayoutOf(open_).name + ">");
      open_ = kKindCount;
      return visitor_.Other(line, n);
    }
    Place place;
    const bool placed = layout.parent == kKindCount
                            ? PlaceTop(line, n, tag, place)
                            : PlaceChild(line, n, tag, place);
    if (placed) visitor_.Element(line, n, place);
  }

  bool Done() const { return stage_ == kDone; }

 private:
  // After one element out of its place, those that follow it out of theirs
  // are its consequence: told again only once one is in place.
  void Misplaced(std::size_t n, const std::string& what,
                 const std::string& belongs = std::string()) {
    if (!derailed_)
      visitor_.Problem(n, what + " is out of its place" +
                              (belongs.empty() ? "" : ": " + belongs));
    derailed_ = true;
  }

  // Takes a line of the document's frame (the prologue, the root's tags);
  // false for an element's line.
  bool FeedFrame(const Line& line, std::size_t n) {
    switch (line.type) {
      case Line::kDeclaration:
        if (stage_ != kDeclaration) Misplaced(n, "the XML declaration");
        stage_ = kDoctype;
        break;
      case Line::kStylesheet:
        if (stage_ != kDoctype) Misplaced(n, "the stylesheet instruction");
        break;
      case Line::kDoctype:
        if (stage_ != kDoctype) Misplaced(n, "the DOCTYPE");
        stage_ = kRoot;
        break;
      case Line::kRootStart:
        if (stage_ != kRoot) Misplaced(n, "<AdminObjects>");
        stage_ = kInRoot;
        break;
      case Line::kRootEnd:
        if (open_ != kKindCount)
          visitor_.Problem(n, std::string("</") + LayoutOf(open_).name +
                                  "> is missing before </AdminObjects>");
        stage_ = kDone;
        break;
      default:
        return false;
    }
    visitor_.Other(line, n);
    return true;
  }

  // Places an element of the root's in its section; false when it cannot
  // be read as one.
  bool PlaceTop(const Line& line, std::size_t n, const std::string& tag,
                Place& place) {
    const int rank = Section(line.kind);
    if (open_ != kKindCount && rank >= Section(open_)) {
      // An end tag left out: said once, and the element taken as closed,
      // so that what follows is read in its place.
      if (!derailed_)
        visitor_.Problem(n, std::string("</") + LayoutOf(open_).name +
                                "> is missing before " + tag);
      open_ = kKindCount;
    }
    if (open_ != kKindCount) {
      Misplaced(n, tag, Belongs(line.kind));
      return false;
    }
    if (rank < section_ || (rank == section_ && (line.kind == kServer ||
                                                 line.kind == kLocalSite))) {
      // Still an object of the document, out of its order: read with its
      // children, so that what names them is not told as naming nothing.
      Misplaced(n, tag, Belongs(line.kind));
    } else {
      section_ = rank;
      derailed_ = false;
    }
    place.index = topLevel_[line.kind]++;
    if (LayoutOf(line.kind).hasEndTag) {
      open_ = line.kind;
      openOid_ = OidOf(line);
      children_ = 0;
      childRank_ = 0;
    }
    return true;
  }

  // Places an element under the open one; false when it is not its
  // parent.
  bool PlaceChild(const Line& line, std::size_t n, const std::string& tag,
                  Place& place) {
    const Layout& layout = LayoutOf(line.kind);
    const int rank = line.kind == kVaultServer ||
                             line.kind == kDataServerCaptureStatus ||
                             line.kind == kDataServerApplyStatus
                         ? 1
                         : 0;
    if (open_ != layout.parent) {
      Misplaced(n, tag,
                std::string("it belongs inside <") +
                    LayoutOf(layout.parent).name + ">");
      return false;
    }
    // Out of its order among its siblings: read all the same.
    if (rank < childRank_)
      Misplaced(n, tag,
                std::string("it belongs inside <") +
                    LayoutOf(layout.parent).name +
                    ">, before its children of other kinds");
    childRank_ = rank;
    place.parent = openOid_;
    place.index = children_++;
    return true;
  }

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

// Reads fd as XML, feeding structure the lines the exporter would have
// written: the prologue, each element and each end tag.
// One walk of a document as XML: each node the reader meets, fed to the
// structure as the line the exporter would have written for it.
class XmlWalk {
 public:
  XmlWalk(xmlTextReaderPtr reader, Structure& structure, Visitor& visitor)
      : reader_(reader), structure_(structure), visitor_(visitor) {}

  // Walks the whole document; the reader's return code.
  int Run() {
    line_.type = Line::kDeclaration;
    structure_.Feed(line_, 1);
    int rc = 0;
    while (!visitor_.Stopped() && (rc = xmlTextReaderRead(reader_)) == 1) {
      const int type = xmlTextReaderNodeType(reader_);
      xmlNodePtr node = xmlTextReaderCurrentNode(reader_);
      const long at = node ? xmlGetLineNo(node) : -1;
      const std::size_t n =
          at > 0 ? static_cast<std::size_t>(at)
                 : static_cast<std::size_t>(
                       xmlTextReaderGetParserLineNumber(reader_));
      const std::string_view name = Text(xmlTextReaderConstName(reader_));
      line_.values.clear();
      line_.present = 0;
      if (type == XML_READER_TYPE_PROCESSING_INSTRUCTION)
        Instruction(n, name);
      else if (type == XML_READER_TYPE_TEXT)
        visitor_.Problem(
            n,
            "text between the elements: '" +
                vantrel::Escaped(Text(xmlTextReaderConstValue(reader_)), 60) +
                "'");
      else if (type == XML_READER_TYPE_END_ELEMENT)
        EndElement(n, name);
      else if (type == XML_READER_TYPE_ELEMENT)
        StartElement(n, name);
    }
    return rc;
  }

 private:
  void Feed(Line::Type type, std::size_t n) {
    line_.type = type;
    structure_.Feed(line_, n);
  }

  // A stylesheet instruction before the root; any other is passed over.
  void Instruction(std::size_t n, std::string_view name) {
    if (inRoot_ || name != "xml-stylesheet") return;
    href_ = StylesheetPath(Text(xmlTextReaderConstValue(reader_)));
    line_.values.emplace_back(href_);
    Feed(Line::kStylesheet, n);
  }

  void EndElement(std::size_t n, std::string_view name) {
    if (!leaves_.empty()) leaves_.pop_back();
    if (name == "AdminObjects") {
      Feed(Line::kRootEnd, n);
      inRoot_ = false;
      return;
    }
    const Kind kind = KindNamed(name);
    if (kind == kKindCount || !LayoutOf(kind).hasEndTag) return;
    line_.kind = kind;
    Feed(Line::kEnd, n);
  }

  void StartElement(std::size_t n, std::string_view name) {
    const bool empty = xmlTextReaderIsEmptyElement(reader_) == 1;
    const bool nested = !leaves_.empty() && leaves_.back();
    if (!empty) {
      const Kind k = KindNamed(name);
      leaves_.push_back(k != kKindCount && !LayoutOf(k).hasEndTag);
    }
    if (nested) {
      visitor_.Problem(n, "<" + vantrel::Escaped(name, 60) +
                              "> is nested in an element that holds none");
      return;
    }
    if (name == "AdminObjects" && !inRoot_) {
      Feed(Line::kDoctype, n);
      Feed(Line::kRootStart, n);
      inRoot_ = true;
      if (empty) {
        Feed(Line::kRootEnd, n);
        inRoot_ = false;
      }
      return;
    }
    const Kind kind = KindNamed(name);
    if (kind == kKindCount) {
      visitor_.Problem(n, "<" + vantrel::Escaped(name, 60) +
                              "> is not an element of the document");
      return;
    }
    line_.kind = kind;
    if (!ReadAttributes(n, kind)) return;
    for (const std::string& value : values_) line_.values.emplace_back(value);
    Feed(Line::kStart, n);
    if (empty && LayoutOf(kind).hasEndTag) {
      line_.values.clear();
      line_.present = 0;
      Feed(Line::kEnd, n);
    }
  }

  // Reads the attributes of the element of kind into values_ and line_'s
  // present bits, telling each problem. A value the exporter never writes
  // is left out; false when the element has no place: an attribute its
  // kind has not, one it lacks, or an identifier that is not one.
  bool ReadAttributes(std::size_t n, Kind kind) {
    const Layout& layout = LayoutOf(kind);
    values_.assign(layout.attributes.size(), std::string());
    bool valid = true;
    while (xmlTextReaderMoveToNextAttribute(reader_) == 1) {
      const std::string_view attribute = Text(xmlTextReaderConstName(reader_));
      const int i = AttributeIndex(kind, attribute);
      if (i < 0) {
        visitor_.Problem(n, std::string(layout.name) + " has no attribute " +
                                vantrel::Escaped(attribute, 60));
        valid = false;
        continue;
      }
      // A value the exporter never writes is told and left out, and the
      // element stays in its place: its children and the references to it
      // are not told as problems of their own. Without its identifier it
      // has no place.
      if (!Value(n, layout, i, attribute)) {
        values_[static_cast<std::size_t>(i)].clear();
        if (layout.attributes[static_cast<std::size_t>(i)].field ==
            Field::kOid)
          valid = false;
      }
    }
    xmlTextReaderMoveToElement(reader_);
    for (std::size_t i = 0; i < layout.attributes.size(); ++i)
      if (!layout.attributes[i].optional && !line_.Has(static_cast<int>(i))) {
        const char* a = layout.attributes[i].name;
        visitor_.Problem(n, std::string(layout.name) + " lacks its " +
                                (a[0] == ' ' ? a + 1 : a));
        valid = false;
      }
    return valid;
  }

  // Takes the value of attribute i, named attribute, from the reader;
  // false after telling why the exporter never writes it.
  bool Value(std::size_t n, const Layout& layout, int i,
             std::string_view attribute) {
    std::string& value = values_[static_cast<std::size_t>(i)];
    value = Text(xmlTextReaderConstValue(reader_));
    line_.present |= 1u << i;
    const Field field = layout.attributes[static_cast<std::size_t>(i)].field;
    // Tools that read the document type write a list of identifiers
    // without its last blank: the same list.
    if (field == Field::kRefs && !value.empty() && value.back() != ' ')
      value += ' ';
    if (value.find_first_of("\r\n") != std::string::npos) {
      visitor_.Problem(n, std::string(layout.name) + " " +
                              std::string(attribute) +
                              " holds a line break, which no store value "
                              "holds");
      return false;
    }
    if (!ValidValue(field, value)) {
      visitor_.Problem(n, std::string(layout.name) + " " +
                              std::string(attribute) + " '" +
                              vantrel::Escaped(value, 60) +
                              "' is not a value the exporter writes there");
      return false;
    }
    return true;
  }

  xmlTextReaderPtr reader_;
  Structure& structure_;
  Visitor& visitor_;
  Line line_;
  std::vector<std::string> values_;
  std::string href_;
  bool inRoot_ = false;
  // For each element open around the one read: true for one of a kind that
  // holds no element.
  std::vector<bool> leaves_;
};

void WalkXml(int fd, Structure& structure, Visitor& visitor) {
  XmlErrors errors;
  xmlTextReaderPtr reader = XmlReader(fd, errors);
  if (!reader) {
    visitor.Problem(0, "cannot be read as XML");
    return;
  }
  const int rc = XmlWalk(reader, structure, visitor).Run();
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

namespace {

// Where the first value of line that XML cannot carry as it is written
// stands, as "N: what holds what"; "" for none.
std::string IllFormedIn(const Line& line, std::size_t n) {
  if (line.type != Line::kStart && line.type != Line::kStylesheet) return "";
  const auto& attributes = line.type == Line::kStart
                               ? LayoutOf(line.kind).attributes
                               : std::vector<Attribute>();
  for (std::size_t i = 0; i < line.values.size(); ++i) {
    if (!line.Has(static_cast<int>(i)) && line.type == Line::kStart) continue;
    const std::size_t at = IllFormedAt(line.values[i]);
    if (at == std::string_view::npos) continue;
    const char c = line.values[i][at];
    const std::string what = c == '&' || c == '<' || c == '"'
                                 ? std::string("'") + c + "'"
                                 : "a character XML 1.0 cannot carry";
    return std::to_string(n) + ": " +
           (line.type == Line::kStylesheet
                ? std::string("the stylesheet's path")
                : std::string(LayoutOf(line.kind).name) + " " +
                      attributes[i].name) +
           " holds " + what;
  }
  return "";
}

// Reads the file at fd as XML from its start, when line n is not the
// exporter's: true when that is how it was read (or told why it is not
// XML), false to read it on in the exporter's layout.
bool ReadAsXml(int fd, std::size_t n, Visitor& visitor, Walked& walked) {
  XmlErrors errors;
  if (WellFormedDocument(fd, errors)) {
    walked.xml = true;
    walked.illFormed.clear();
    visitor.Restart();
    Structure again(visitor);
    if (ScanRaw(fd, visitor)) WalkXml(fd, again, visitor);
    return true;
  }
  // Neither reading. A file whose prologue is not the exporter's is XML
  // that a tool wrote, when the parser reads further: its reason names the
  // fault, alone.
  if (errors.line > n && n <= 3) {
    walked.xml = true;
    walked.illFormed.clear();
    visitor.Restart();
    visitor.Problem(errors.line, errors.message.empty() ? "not well-formed XML"
                                                        : errors.message);
    return true;
  }
  return false;
}

// Tells how a walk in the exporter's layout ended, unless whole.
void TellEnd(const Reader& reader, const Structure& structure,
             Visitor& visitor) {
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
}

}  // namespace

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
    } else {
      // Not the exporter's layout: a document an XML tool wrote is read as
      // XML instead, from its start.
      if (!triedXml && ReadAsXml(fd, n, visitor, walked)) {
        ::close(fd);
        return walked;
      }
      triedXml = true;
      visitor.Problem(n, reason);
      continue;
    }
    if (untold && n > 1) {
      TellConverted(crlf, bom, visitor);
      untold = false;
    }
    if (line.type == Line::kStart && HoldsNul(line, n, visitor)) continue;
    if (walked.illFormed.empty()) walked.illFormed = IllFormedIn(line, n);
    structure.Feed(line, n);
  }
  if (untold) TellConverted(crlf, bom, visitor);
  TellEnd(reader, structure, visitor);
  ::close(fd);
  return walked;
}

}  // namespace doc
