// The AdminObjects document as the exporter writes it, read back line by
// line.
//
// The document is not always well-formed XML (values are written
// unescaped), so it is read with the exporter's own layout: one element per
// line, each with a fixed sequence of attributes, optional ones in known
// places, each value ended by the next expected delimiter. A line that two
// readings fit is refused, never read as one of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace doc {

// What an attribute holds.
enum class Field : std::uint8_t {
  kText,   // any text without a line break
  kOid,    // the element's identifier: "x" and upper-case hexadecimal
  kRef,    // the identifier of another element
  kRefs,   // identifiers, each followed by a blank
  kMedia,  // the identifier of a media, which has no element
  kFlag,   // Y or N
};

struct Attribute {
  const char* name;
  Field field;
  bool optional;
  const char* kinds;  // for references: the elements it may name, by blank
  // Where a store keeps it: a column of the element's table; for a list,
  // the link table of (owner, target) rows.
  const char* column;
  bool spaced;  // written after two blanks, not one
  // State the system keeps up as it runs (when a replication last
  // succeeded), not configuration: plans keep it apart, and an apply keeps
  // the store's unless asked otherwise.
  bool runTime;
  // May hold a secret (a password in a connection string): masked in what
  // leaves the machine, unless asked otherwise.
  bool secret;
};

// The elements of the document, in the order of their sections.
enum Kind : std::uint8_t {
  kProject,
  kDataRdb,
  kDomain,
  kBusinessDomain,
  kServer,
  kDataServer,
  kVaultServer,
  kHost,
  kSubscribingTarget,
  kVaultServerCaptureStatus,
  kDataServerCaptureStatus,
  kSubscription,
  kVaultServerApplyStatus,
  kDataServerApplyStatus,
  kPackageDefinition,
  kExternSite,
  kLocalSite,
  kKindCount
};

// How the exporter writes one element, and where a store keeps it.
struct Layout {
  const char* name;
  Kind parent;  // kKindCount for a child of AdminObjects
  int depth;    // blanks of indentation, two per level
  std::vector<Attribute> attributes;
  const char* closer;  // ends the start tag (or the element)
  bool hasEndTag;      // children follow, then the end tag in column one
  bool single;         // at most one in a document; else any number
  const char* table;   // the store table of its rows; null for none
  // A column of the table whose value the element implies, and the value.
  const char* impliedColumn;
  const char* impliedValue;
};

// The prologue's lines as the exporter writes them; the stylesheet's path
// stands between its opener and its closer.
extern const char kDeclarationLine[];
extern const char kStylesheetOpener[];
extern const char kStylesheetCloser[];
extern const char kDoctypeLine[];

// The layout of kind.
const Layout& LayoutOf(Kind kind);
// The attributes of kind that hold run-time state, a bit each by index.
std::uint32_t RunTimeAttributes(Kind kind);

// One line of the document, read.
struct Line {
  enum Type : std::uint8_t {
    kDeclaration,
    kStylesheet,
    kDoctype,
    kRootStart,
    kRootEnd,
    kStart,  // an element (with or without children)
    kEnd,    // the end tag of an element with children
  };
  Type type;
  Kind kind = kKindCount;
  // The values of the layout's attributes, identifiers with their "x"; an
  // absent optional one is empty and not present. They view the text read,
  // and last as long as it does.
  std::vector<std::string_view> values;
  std::uint32_t present = 0;  // bit i: attribute i is present
  bool Has(int i) const { return (present >> i) & 1; }
};

// Reads one line of a document (without its newline); false with a reason
// when it is not one of the document's lines, or two readings fit it. A
// usual line (no quote nor "=" in its values) is read in one pass; without
// plain every line is judged by trying every placement of its delimiters,
// which must give the same answer.
bool ReadLine(std::string_view text, Line& line, std::string* reason,
              bool plain = true);

// The index of the attribute named name in the layout of kind (its leading
// blank, if any, left out), or -1.
int AttributeIndex(Kind kind, std::string_view name);
// AttributeIndex of a kind's Oid and of its Name, looked up once: for the
// loops that ask it of every element.
int OidIndex(Kind kind);
int NameIndex(Kind kind);
// The kind of the element named name, or kKindCount.
Kind KindNamed(std::string_view name);

// True when value suits field as the exporter writes it: an identifier
// with its "x" and upper-case hexadecimal, a list of them each followed by a
// blank, Y or N; any text.
bool ValidValue(Field field, std::string_view value);

// The largest document read, standard input among them: far above the
// document of any administration, and a bound for an endless input.
constexpr std::uint64_t kMaxDocumentBytes = std::uint64_t{2} << 30;

// True when head, the first bytes of a file, is empty or begins a
// document of this format (an export cut short among them): what an archive
// may replace.
bool StartsLikeDocument(std::string_view head);

// Splits a list of identifiers ("x0A x0B ") into the identifiers.
std::vector<std::string_view> Identifiers(std::string_view refs);

// Streams the lines of a document file through one buffer, which grows
// only for a line longer than itself.
class Reader {
 public:
  // Reads the open file fd, which it closes.
  explicit Reader(int fd);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  // Sets text to the next line, without its newline; it stays valid until
  // the next call. False at the end of the file, or when it cannot be read
  // further (Error() then says why).
  bool Next(std::string_view& text);
  std::size_t LineNumber() const { return number_; }
  bool EndedWithoutNewline() const { return noNewline_; }
  // True when reading stopped at a line longer than kMaxLine.
  bool TooLong() const { return tooLong_; }
  // The longest line read, far above the longest value a store holds: a
  // longer one is not a document the exporter writes (/dev/zero is one
  // endless line).
  static constexpr std::size_t kMaxLine = std::size_t{256} << 20;
  // The system's reason when a read failed, or 0.
  int Error() const { return error_; }

 private:
  int fd_ = -1;
  std::vector<char> buffer_;
  std::size_t begin_ = 0, end_ = 0;  // the bytes read and not yet taken
  bool eof_ = false;
  int error_ = 0;
  std::size_t number_ = 0;
  bool noNewline_ = false;
  bool tooLong_ = false;
};

}  // namespace doc
