// Writes the files made from the element table at build time:
//   vantrel-generate DIR REPORT_TEMPLATE PLAN_SCHEMA_TEMPLATE
// DIR/share/KivAdmin.dtd, DIR/share/vantrel-doc.schema.json,
// DIR/share/vantrel-plan.schema.json (the plan's, from its template),
// DIR/share/vantrel-report.xsl (the template with its columns filled) and
// DIR/generated/EmbeddedReport.cpp (that stylesheet, for vantrel-doc).
#include <fstream>
#include <iostream>
#include <sstream>

#include "DocumentSchemas.h"

namespace {

// Writes text to path; false after saying why.
bool Write(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (out) return true;
  std::cerr << "vantrel-generate: cannot write " << path << "\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr
        << "usage: vantrel-generate DIR REPORT_TEMPLATE PLAN_SCHEMA_TEMPLATE\n";
    return 2;
  }
  const std::string dir = argv[1];
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream templ;
  templ << in.rdbuf();
  std::string xsl, error;
  if (!in || !doc::FillColumns(templ.str(), &xsl, &error)) {
    std::cerr << "vantrel-generate: " << argv[2] << ": "
              << (in ? error : "cannot be read") << "\n";
    return 1;
  }
  std::ifstream planIn(argv[3], std::ios::binary);
  std::ostringstream planTemplate;
  planTemplate << planIn.rdbuf();
  std::string plan;
  if (!planIn || !doc::PlanJsonSchema(planTemplate.str(), &plan, &error)) {
    std::cerr << "vantrel-generate: " << argv[3] << ": "
              << (planIn ? error : "cannot be read") << "\n";
    return 1;
  }
  const bool written =
      Write(dir + "/share/vantrel-plan.schema.json", plan) &&
      Write(dir + "/share/KivAdmin.dtd", doc::Dtd()) &&
      Write(dir + "/share/vantrel-doc.schema.json",
            doc::DocumentJsonSchema()) &&
      Write(dir + "/share/vantrel-report.xsl", xsl) &&
      Write(dir + "/generated/EmbeddedReport.cpp",
            "// Made by vantrel-generate from share/vantrel-report.xsl.in; "
            "edit the template.\n"
            "extern const char* const kReportXsl;\n"
            "const char* const kReportXsl = R\"kivxsl(" +
                xsl + ")kivxsl\";\n");
  return written ? 0 : 1;
}
