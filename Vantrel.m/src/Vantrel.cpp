// Vantrel: exports the whole administration configuration (projects, domains,
// servers, hosts, replication, package definitions and sites) to one XML
// document, AdminObjects.
//
// The document is written as literal pieces straight to the stream, with no
// escaping: readers of this format expect it byte for byte, oddities
// included, so every text below stays exactly as it is.
#include "Vantrel.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>

#include "SdaiSession.h"

// ---------------------------------------------------------------------------
// Process-wide state. The trace channels are built in this order, then the
// stylesheet path, and destroyed in the reverse order at exit.

int indent = 0;
int iXSL = 0;
LumKivTrace traceAdminRepl("ADMINREPL", "ADMINREPL", "STDOUT", 1024,
                           LumTraMode(0));
LumKivTrace traceXmlAdmin("XMLADMIN", "XMLADMIN", "STDOUT", 1024,
                          LumTraMode(0));
LumKivTrace traceAdminCache("ADMINCACHE", "ADMINCACHE", "STDOUT", 1024,
                            LumTraMode(0));
LumKivTrace traceVantrel("VANTREL", "VANTREL", "STDOUT", 1024, LumTraMode(0));
LumUnicodeString cXSLFile;

namespace {

// Writes the "returns" line of step; returns rc.
int Returns(LumKivTraceStep& step, int rc) {
  step.Trace() << LumKivTrace_returns << rc << LumKivTrace_nl;
  return rc;
}

// Reports a null pointer found by the check at line; returns 1.
int NullPointer(LumKivTraceStep& step, int line) {
  std::cerr << "unexpected null pointer"
            << " line [" << line << "]"
            << " File [" << __FILE__ << "]"
            << "\n";
  return Returns(step, 1);
}

// Writes message as one line on standard error; returns 1.
int Fail(LumKivTraceStep& step, const char* message) {
  std::cerr << message << "\n";
  return Returns(step, 1);
}

// Starts an element: its indentation, and one level deeper for its children.
// Both come before anything is checked, so a failure leaves them behind.
void Enter(std::ofstream* out) {
  tab(out);
  ++indent;
}

// Ends an element that was written whole; returns 0.
int Leave(LumKivTraceStep& step) {
  --indent;
  return Returns(step, 0);
}

// Element index (from 1) of list, as the interface its getter stored.
template <class T>
T* At(LumListPtrIUnknown& list, int index) {
  return static_cast<T*>(list[index]);
}

// Gives back the reference of every element of list, in list order. A null
// element holds no reference, and calling through it would be undefined.
template <class T>
void ReleaseAll(LumListPtrIUnknown& list) {
  for (int i = 1; i <= list.Count(); ++i)
    if (T* element = At<T>(list, i)) element->Release();
}

// Writes each identifier of a reference list as "x", its hexadecimal text
// and a blank, after opener; writes nothing for an empty list.
template <class T>
void DumpOidList(std::ofstream* out, LumListPtrIUnknown& list,
                 const char* opener) {
  for (int i = 1; i <= list.Count(); ++i) {
    if (i == 1) *out << opener;
    LumDbBinary oid(0);
    At<T>(list, i)->GetOid(oid);
    *out << "x" << oid.GetHexaValue().ConvertToChar() << " ";
  }
}

// Writes opener and the identifier of an optional reference, then gives the
// reference back; writes nothing for a null one.
template <class T>
void DumpReference(std::ofstream* out, T* reference, const char* opener) {
  if (!reference) return;
  LumDbBinary oid(0);
  reference->GetOid(oid);
  *out << opener << oid.GetHexaValue().ConvertToChar();
  reference->Release();
}

}  // namespace

// ---------------------------------------------------------------------------
// Command line and run.

int help() {
  std::cerr << "usage :"
            << "\n"
            << "Vantrel -f fileName "
            << "\n";
  return 0;
}

namespace {

// Rejects the command line; returns the exit status 1.
int Usage() {
  help();
  std::cerr << "END Vantrel rc = 1"
            << "\n";
  return 1;
}

}  // namespace

int VantrelMain(int argc, char* argv[]) {
  std::cerr << "START Vantrel "
            << "\n";
  if (argc != 5 && argc != 3) return Usage();
  if (std::strcmp(argv[1], "-f") != 0) return Usage();
  if (argc >= 4) {
    if (std::strcmp(argv[3], "-xsl") != 0) return Usage();
    iXSL = 1;
    cXSLFile = argv[4];
  }

  // The output is never the store, nor a file SQLite keeps beside it:
  // opening it would truncate the store, or its journal, before a row is
  // read.
  int which = 0;
  try {
    which = KivAdminStoreIs(argv[2]);
  } catch (const std::bad_alloc&) {
    // Not known to be safe to open: the allocation failure of the driver.
    std::cerr << "cannot allocate memory " << argv[2] << "\n";
    return 1;
  }
  if (which) {
    std::cerr << "cannot open file " << argv[2]
              << (which == 1 ? ": it is the administration store"
                             : ": it is a file of the administration store")
              << "\n";
    return 1;
  }
  // A file-size limit then fails the write, which is reported below, instead
  // of ending the process without a word.
  std::signal(SIGXFSZ, SIG_IGN);

  std::ofstream* out = new (std::nothrow) std::ofstream;
  if (!out) {
    std::cerr << "cannot allocate memory " << argv[2] << "\n";
    return 1;
  }
  try {
    out->open(argv[2], std::ios::out);
  } catch (const std::bad_alloc&) {
    // The stream's buffer could not be allocated: the stream's own
    // allocation failure.
    std::cerr << "cannot allocate memory " << argv[2] << "\n";
    return 1;
  }
  if (!out->is_open()) {
    // The stream stays allocated: the process ends right after.
    std::cerr << "cannot open file " << argv[2] << "\n";
    return 1;
  }
  int rc = 1;
  try {
    rc = ReadAdmin(out);
  } catch (const std::bad_alloc&) {
    // Memory ran out where no getter could report it: a failure like any
    // other, told, and the END line written.
    std::cerr << "cannot allocate memory"
              << "\n";
    rc = 1;
  }
  // Every write is checked here: a failed write leaves the stream failed
  // (later writes do nothing), and closing writes what is left. A document
  // that is not whole on disk is never a success.
  out->close();
  const int writeError = out->fail() ? errno : 0;
  const bool written = !out->fail();
  delete out;
  if (!written) {
    std::cerr << "cannot write file " << argv[2] << ": "
              << std::strerror(writeError) << "\n";
    rc = 1;
  }
  std::cerr << "END Vantrel rc= " << rc << "\n";
  return rc;
}

// ---------------------------------------------------------------------------
// Export run.

int ReadAdmin(std::ofstream* out) {
  LumKivTraceStep step(traceVantrel, "ReadAdmin");
  KivIAdmin* admin = nullptr;
  GetKivIAdmin(admin);
  if (!admin) return Fail(step, "cannot get KivAdmin");

  HRESULT hr;
  {
    LumUnicodeString user("");
    LumUnicodeString password("");
    hr = admin->Init(user, password, 0);
  }
  // Nothing is undone on the failures below: the process ends right after.
  if (hr < 0) return Fail(step, "cannot init KivAdmin");
  if (DumpTitle(out) != 0) return Fail(step, "cannot create title of XML file");
  if (DumpRoot(out, admin) != 0) return Fail(step, "cannot dump adminobjects ");
  if (admin->End() < 0) return Fail(step, "cannot End KivAdmin");
  admin->Release();
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  return Returns(step, 0);
}

// ---------------------------------------------------------------------------
// Document frame.

int DumpTitle(std::ofstream* out) {
  LumKivTraceStep step(traceVantrel, "DumpTitle");
  *out << "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>"
       << "\n";
  if (iXSL)
    *out << "<?xml-stylesheet type=\"text/xsl\" href=\""
         << cXSLFile.ConvertToChar() << "\" ?>"
         << "\n";
  *out << "<!DOCTYPE AdminObjects SYSTEM \"KivAdmin.dtd\" >"
       << "\n";
  return Returns(step, 0);
}

void tab(std::ofstream* out) {
  const std::size_t width = 2 * static_cast<std::size_t>(indent);
  char* blanks = static_cast<char*>(std::malloc(width + 1));
  std::memset(blanks, ' ', width);
  blanks[width] = '\0';
  *out << blanks;
  std::free(blanks);
}

// ---------------------------------------------------------------------------
// Root traversal.

namespace {

// How a section of the document element gives back the references of its
// list; each section keeps its own rule.
enum class Give {
  kEachAfterExport,   // null elements skipped; each released once exported
  kNever,             // never released
  kAllBeforeMessage,  // all released after the list; on failure, before the
                      // message
  kAllUnlessFailure,  // all released after the list; none on failure
  kAllAfterMessage,   // all released after the list; on failure, after the
                      // message
};

struct Section {
  const char* countLeadIn;
  const char* getterFailure;
  const char* exportFailure;
  Give give;
};

// Writes the elements of one list section of the document element from list,
// which the getter filled with status hr; returns 0, or 1 after its message.
template <class T>
int DumpSection(std::ofstream* out, LumKivTraceStep& step,
                LumListPtrIUnknown& list, HRESULT hr,
                int (*exporter)(std::ofstream*, T*), const Section& section) {
  if (hr < 0) return Fail(step, section.getterFailure);
  const int count = list.Count();
  step.Trace() << section.countLeadIn << count << "]"
               << "\n";
  for (int i = 1; i <= count; ++i) {
    T* element = At<T>(list, i);
    if (section.give == Give::kEachAfterExport && !element) continue;
    if (exporter(out, element) != 0) {
      if (section.give == Give::kAllBeforeMessage) ReleaseAll<T>(list);
      std::cerr << section.exportFailure << "\n";
      if (section.give == Give::kAllAfterMessage) ReleaseAll<T>(list);
      return Returns(step, 1);
    }
    if (section.give == Give::kEachAfterExport) element->Release();
  }
  if (section.give != Give::kEachAfterExport && section.give != Give::kNever)
    ReleaseAll<T>(list);
  return 0;
}

}  // namespace

int DumpRoot(std::ofstream* out, KivIAdmin* admin) {
  LumKivTraceStep step(traceVantrel, "DumpRoot");
  if (!admin) return NullPointer(step, __LINE__);
  // The document element neither indents nor deepens its children.
  *out << "<AdminObjects>"
       << "\n";

  LumListPtrIUnknown projects(0);
  if (DumpSection<KivIProject>(
          out, step, projects, admin->GetProjects(projects), DumpProject,
          {"number of project :[", "cannot get the list of projects",
           "error when writing PROJECT node", Give::kEachAfterExport}))
    return 1;

  LumListPtrIUnknown domains(0);
  if (DumpSection<KivIDomain>(
          out, step, domains, admin->GetDomains(domains), DumpDomain,
          {"number of domain :[", "cannot get the list of domain",
           "error when writing domain node", Give::kEachAfterExport}))
    return 1;

  if (DumpServers(out, admin) != 0)
    return Fail(step, "cannot dump server list");

  LumListPtrIUnknown hosts(0);
  if (DumpSection<KivIHost>(
          out, step, hosts, admin->GetHosts(hosts), DumpHost,
          {"number of host found : [", "cannot get the list of HOST",
           "cannot dump Host", Give::kNever}))
    return 1;

  LumListPtrIUnknown targets(0);
  if (DumpSection<KivIReplSubscribingTarget>(
          out, step, targets, admin->GetSubscribingTargets(targets),
          DumpSubscribingTarget,
          {"number of subscribing target found [",
           "cannot get the list of subscribing target",
           "cannot dump Subscribing target ", Give::kAllBeforeMessage}))
    return 1;

  LumListPtrIUnknown subscriptions(0);
  if (DumpSection<KivIReplSubscription>(
          out, step, subscriptions, admin->GetSubscriptions(subscriptions),
          DumpSubscription,
          {"number of subscription found [",
           "cannot get the list of subscription ", "cannot dump Subscrption ",
           Give::kAllBeforeMessage}))
    return 1;

  LumListPtrIUnknown definitions(0);
  if (DumpSection<KivIReplPackageDefinition>(
          out, step, definitions, admin->GetPackageDefinitions(definitions),
          DumpPackageDefinition,
          {"number of package definition found [",
           "cannot get the list of package definition ",
           "cannot dump package definition", Give::kAllUnlessFailure}))
    return 1;

  // The extern sites are announced and reported with the package-definition
  // texts; the format's readers and scripts know them so.
  LumListPtrIUnknown externSites(0);
  if (DumpSection<KivIExternSite>(
          out, step, externSites, admin->GetExternSites(externSites),
          DumpExternSite,
          {"number of package definition found [",
           "cannot get the list of package definition ",
           "cannot dump package definition", Give::kAllAfterMessage}))
    return 1;

  KivILocalSite* localSite = nullptr;
  if (admin->GetLocalSite(localSite) < 0)
    return Fail(step, "cannot get KivILocalSite pointer");
  if (localSite) {
    if (DumpLocalSite(out, localSite) != 0)
      return Fail(step, "cannot dump local site");
    localSite->Release();
  }

  *out << "</AdminObjects>"
       << "\n";
  return Returns(step, 0);
}

// ---------------------------------------------------------------------------
// Projects.

int DumpProject(std::ofstream* out, KivIProject* project) {
  LumKivTraceStep step(traceVantrel, "DumpProject");
  Enter(out);
  if (!project) return NullPointer(step, __LINE__);

  LumListPtrIUnknown dataDomains(0);
  if (project->GetDataDomains(dataDomains) < 0)
    return Fail(step, "cannot get the list of datadomain");
  LumUnicodeString name = project->GetName();
  step.Trace() << "Project Name : [" << name.ConvertToChar() << "]"
               << "\n";
  LumDbBinary oid(0);
  project->GetOid(oid);
  LumListPtrIUnknown vaultServers(0);
  if (project->GetVaultServers(vaultServers) < 0)
    return Fail(step, "cannot get the list of vaultservers");
  LumListPtrIUnknown dataServers(0);
  if (project->GetDataServers(dataServers) < 0)
    return Fail(step, "cannot get the list of dataservers");

  LumUnicodeString hexOid = oid.GetHexaValue();
  *out << "<PROJECT Name=\"" << name.ConvertToChar() << "\" Oid=\"x"
       << hexOid.ConvertToChar();
  DumpOidList<KivIVaultServer>(out, vaultServers, "\" VaultServers=\"");
  DumpOidList<KivIDataServer>(out, dataServers, "\" DataServers=\"");
  *out << "\">"
       << "\n";
  ReleaseAll<KivIVaultServer>(vaultServers);
  ReleaseAll<KivIDataServer>(dataServers);

  const int count = dataDomains.Count();
  step.Trace() << "number of DataDomain :[" << count << "]"
               << "\n";
  for (int i = 1; i <= count; ++i) {
    KivIDataDomain* dataDomain = At<KivIDataDomain>(dataDomains, i);
    if (!dataDomain) continue;
    if (DumpDataDomain(out, dataDomain) != 0)
      return Fail(step, "error when writing DATARDB node");
    dataDomain->Release();
  }
  // The end tag stays in the first column: readers of this format expect it.
  *out << "</PROJECT>"
       << "\n";
  return Leave(step);
}

// ---------------------------------------------------------------------------
// Domains and business domains.

int DumpDomain(std::ofstream* out, KivIDomain* domain) {
  LumKivTraceStep step(traceVantrel, "DumpDomain");
  Enter(out);
  if (!domain) return NullPointer(step, __LINE__);

  LumListPtrIUnknown businessDomains(0);
  if (domain->GetBusinessDomains(businessDomains) < 0) {
    // A domain whose business domains cannot be read ends quietly: an end tag
    // alone, the depth left one level higher, and the export goes on.
    *out << "</DOMAIN>"
         << "\n";
    return Returns(step, 0);
  }
  LumUnicodeString name = domain->GetName();
  step.Trace() << "Domain Name : [" << name.ConvertToChar() << "]"
               << "\n";
  LumDbBinary oid(0);
  domain->GetOid(oid);
  LumUnicodeString visible;
  visible = domain->GetVisible() ? "Y" : "N";

  LumUnicodeString hexOid = oid.GetHexaValue();
  *out << "<DOMAIN Name=\"" << name.ConvertToChar() << "\" Visible=\""
       << visible.ConvertToChar() << "\" Oid=\"x" << hexOid.ConvertToChar()
       << "\">"
       << "\n";

  const int count = businessDomains.Count();
  step.Trace() << "number of BusinessDomain :[" << count << "]"
               << "\n";
  for (int i = 1; i <= count; ++i) {
    KivIBusinessDomain* businessDomain =
        At<KivIBusinessDomain>(businessDomains, i);
    if (!businessDomain) continue;
    if (DumpBusinessDomain(out, businessDomain) != 0)
      return Fail(step, "error when writing BUSINESSDOMAIN node");
    businessDomain->Release();
  }
  *out << "</DOMAIN>"
       << "\n";
  return Leave(step);
}

int DumpBusinessDomain(std::ofstream* out, KivIBusinessDomain* businessDomain) {
  LumKivTraceStep step(traceVantrel, "DumpBusinessDomain");
  Enter(out);
  if (!businessDomain) return NullPointer(step, __LINE__);

  LumUnicodeString name = businessDomain->GetName();
  step.Trace() << "BusinessDomain Name : [" << name.ConvertToChar() << "]"
               << "\n";
  LumUnicodeString metaDataName, editor, corvelFlag, dataModeler;
  businessDomain->GetMetaDataName(metaDataName);
  businessDomain->GetEditor(editor);
  businessDomain->GetCorvelFlag(corvelFlag);
  businessDomain->GetDataModeler(dataModeler);
  LumDbBinary oid(0);
  businessDomain->GetOid(oid);
  LumUnicodeString hexOid = oid.GetHexaValue();

  *out << "<BUSINESSDOMAIN Oid=\"x" << hexOid.ConvertToChar() << "\" Name=\""
       << name.ConvertToChar() << "\" MetaDataName=\""
       << metaDataName.ConvertToChar() << "\" Editor=\""
       << editor.ConvertToChar() << "\" CorvelFlag=\""
       << corvelFlag.ConvertToChar() << "\" DataModeler=\""
       << dataModeler.ConvertToChar() << "\"/>"
       << "\n";
  return Leave(step);
}

// ---------------------------------------------------------------------------
// Data domains.

int DumpDataDomain(std::ofstream* out, KivIDataDomain* dataDomain) {
  LumKivTraceStep step(traceVantrel, "DumpDataDomain");
  Enter(out);
  if (!dataDomain) return NullPointer(step, __LINE__);

  LumUnicodeString name = dataDomain->GetName();
  step.Trace() << "DataDomain Name : [" << name.ConvertToChar() << "]"
               << "\n";
  if (!dataDomain->IsRdb()) return Fail(step, "DATAFILE node not supported");

  LumDbBinary oid(0);
  dataDomain->GetOid(oid);
  LumUnicodeString aliasName, ownerDico, driver;
  dataDomain->GetAliasName(aliasName);
  dataDomain->GetOwnerDico(ownerDico);
  dataDomain->GetDriver(driver);
  KivIBusinessDomain* businessDomain = nullptr;
  if (dataDomain->GetBusinessDomain(businessDomain) < 0 || !businessDomain)
    return Fail(step, "cannot get the businessdomain of datadomain");
  LumDbBinary businessDomainOid(0);
  businessDomain->GetOid(businessDomainOid);
  KivIDataServer* dataServer = nullptr;
  dataDomain->GetDataServer(dataServer);
  LumDbBinary dataServerOid(0);
  if (dataServer) dataServer->GetOid(dataServerOid);

  LumUnicodeString hexOid = oid.GetHexaValue();
  LumUnicodeString hexBusinessDomain = businessDomainOid.GetHexaValue();
  // Two blanks before Oid: the format has always had them.
  *out << "<DATARDB Name=\"" << name.ConvertToChar() << "\" AliasName=\""
       << aliasName.ConvertToChar() << "\"  Oid=\"x" << hexOid.ConvertToChar()
       << "\" OwnerDico=\"" << ownerDico.ConvertToChar()
       << "\" BusinessDomain=\"x" << hexBusinessDomain.ConvertToChar()
       << "\" Driver=\"" << driver.ConvertToChar();
  if (dataServer) {
    LumUnicodeString hexDataServer = dataServerOid.GetHexaValue();
    *out << "\" DataServer=\"x" << hexDataServer.ConvertToChar();
  }
  *out << "\" />"
       << "\n";
  businessDomain->Release();
  if (dataServer) dataServer->Release();
  return Leave(step);
}

// ---------------------------------------------------------------------------
// Servers.

int DumpServers(std::ofstream* out, KivIAdmin* admin) {
  LumKivTraceStep step(traceVantrel, "DumpServers");
  if (!admin) return NullPointer(step, __LINE__);

  LumListPtrIUnknown dataServers(0);
  LumListPtrIUnknown vaultServers(0);
  admin->GetDataServers(dataServers);
  admin->GetVaultServers(vaultServers);
  if (dataServers.Count() <= 0 && vaultServers.Count() <= 0)
    return Returns(step, 0);

  // The wrapper stands in the first column and does not deepen its children.
  *out << "<SERVER>"
       << "\n";
  for (int i = 1; i <= dataServers.Count(); ++i)
    if (DumpDataServer(out, At<KivIDataServer>(dataServers, i)) != 0)
      return Fail(step, "cannot dump data server ");
  for (int i = 1; i <= vaultServers.Count(); ++i)
    if (DumpVaultServer(out, At<KivIVaultServer>(vaultServers, i)) != 0)
      return Fail(step, "cannot dump data server ");
  ReleaseAll<KivIDataServer>(dataServers);
  ReleaseAll<KivIVaultServer>(vaultServers);
  *out << "</SERVER>"
       << "\n";
  return Returns(step, 0);
}

int DumpDataServer(std::ofstream* out, KivIDataServer* dataServer) {
  LumKivTraceStep step(traceVantrel, "DumpDataServer");
  Enter(out);
  if (!dataServer) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  dataServer->GetOid(oid);
  LumUnicodeString name = dataServer->GetName();
  LumUnicodeString authentication, dbms, connectionString;
  dataServer->GetAuthentication(authentication);
  dataServer->GetDBMS(dbms);
  dataServer->GetConnectionString(connectionString);
  KivIHost* host = nullptr;
  dataServer->GetHost(host);
  LumDbBinary hostOid(0);
  if (host) host->GetOid(hostOid);

  *out << "<DATASERVER Oid=\"x" << oid.GetHexaValue().ConvertToChar()
       << "\" Name=\"" << name.ConvertToChar() << "\" Authentication=\""
       << authentication.ConvertToChar() << "\" DBMS=\"" << dbms.ConvertToChar()
       << "\" ConnectionString=\"" << connectionString.ConvertToChar();
  if (host) *out << "\" Host=\"x" << hostOid.GetHexaValue().ConvertToChar();
  *out << "\"/>"
       << "\n";
  if (host) host->Release();
  return Leave(step);
}

int DumpVaultServer(std::ofstream* out, KivIVaultServer* vaultServer) {
  LumKivTraceStep step(traceVantrel, "DumpVaultServer");
  Enter(out);
  if (!vaultServer) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  vaultServer->GetOid(oid);
  LumUnicodeString name = vaultServer->GetName();
  LumUnicodeString aliasName;
  vaultServer->GetAliasName(aliasName);

  *out << "<VAULTSERVER Oid=\"x" << oid.GetHexaValue().ConvertToChar()
       << "\" Name=\"" << name.ConvertToChar() << "\" AliasName=\""
       << aliasName.ConvertToChar() << "\"/>"
       << "\n";
  return Leave(step);
}

// ---------------------------------------------------------------------------
// Hosts and sites.

int DumpHost(std::ofstream* out, KivIHost* host) {
  LumKivTraceStep step(traceVantrel, "DumpHost");
  Enter(out);
  if (!host) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  host->GetOid(oid);
  LumUnicodeString name = host->GetName();
  LumUnicodeString osType, osVersion;
  host->GetOSType(osType);
  host->GetOSVersion(osVersion);

  *out << "<HOST Oid=\"x" << oid.GetHexaValue().ConvertToChar() << "\" Name=\""
       << name.ConvertToChar() << "\" OSType=\"" << osType.ConvertToChar()
       << "\" OSVersion=\"" << osVersion.ConvertToChar() << "\"/>"
       << "\n";
  return Leave(step);
}

namespace {

// Writes an extern or the local site: elementOpener, the identifier and the
// name. Only the local site announces its name on the trace.
template <class T>
int DumpSite(std::ofstream* out, T* site, const char* stepName,
             const char* elementOpener, const char* nameLeadIn) {
  LumKivTraceStep step(traceVantrel, stepName);
  Enter(out);
  if (!site) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  site->GetOid(oid);
  LumUnicodeString name;
  site->GetName(name);
  if (nameLeadIn)
    step.Trace() << nameLeadIn << name.ConvertToChar() << "]"
                 << "\n";

  *out << elementOpener << oid.GetHexaValue().ConvertToChar() << "\" Name=\""
       << name.ConvertToChar() << "\"/>"
       << "\n";
  return Leave(step);
}

}  // namespace

int DumpExternSite(std::ofstream* out, KivIExternSite* site) {
  return DumpSite(out, site, "DumpExternSite", "<EXTERNSITE Oid=\"x", nullptr);
}

int DumpLocalSite(std::ofstream* out, KivILocalSite* site) {
  return DumpSite(out, site, "DumpLocalSite", "<LOCALSITE Oid=\"x",
                  "LocalSite Name : [");
}

// ---------------------------------------------------------------------------
// Package definitions and media.

int DumpPackageDefinition(std::ofstream* out,
                          KivIReplPackageDefinition* definition) {
  LumKivTraceStep step(traceVantrel, "DumpPackageDefinition");
  Enter(out);
  if (!definition) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  definition->GetOid(oid);
  LumUnicodeString name;
  definition->GetName(name);
  LumListPtrIUnknown dataDomains(0);
  definition->GetWholeDataDomains(dataDomains);

  *out << "<PACKAGEDEFINITION Oid=\"x" << oid.GetHexaValue().ConvertToChar()
       << "\" Name=\"" << name.ConvertToChar();
  DumpOidList<KivIDataDomain>(out, dataDomains, "\" WholeDataDomains=\"");
  ReleaseAll<KivIDataDomain>(dataDomains);
  *out << "\" />"
       << "\n";
  return Leave(step);
}

int DumpMedia(std::ofstream* out, KivIReplMedia* media) {
  LumKivTraceStep step(traceVantrel, "DumpMedia");
  Enter(out);
  if (!media) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  media->GetOid(oid);
  LumUnicodeString mediaPath;
  media->GetMediaPath(mediaPath);

  // The media identifier is bare hexadecimal, without the "x".
  *out << "<MEDIA Oid=\"" << oid.GetHexaValue().ConvertToChar()
       << "\" MediaPath=\"" << mediaPath.ConvertToChar() << "\"/>"
       << "\n";
  return Leave(step);
}

// ---------------------------------------------------------------------------
// Subscribing targets and subscriptions.

namespace {

HRESULT GetStatuses(KivIReplSubscribingTarget* target,
                    LumListPtrIUnknown& statuses) {
  return target->GetCaptureStatuses(statuses);
}
HRESULT GetStatuses(KivIReplSubscription* subscription,
                    LumListPtrIUnknown& statuses) {
  return subscription->GetApplyStatuses(statuses);
}
HRESULT GetServer(KivIReplCaptureStatus* status, KivIObject** server) {
  return status->GetCaptureServer(server);
}
HRESULT GetServer(KivIReplApplyStatus* status, KivIObject** server) {
  return status->GetApplyServer(server);
}

// What sets a subscribing target apart from a subscription.
template <class Status>
struct ReplicationKind {
  const char* stepName;
  const char* elementOpener;
  const char* countLeadIn;
  const char* serverFailure;
  int (*dumpVaultStatus)(std::ofstream*, Status*);
  const char* vaultStatusFailure;
  int (*dumpDataStatus)(std::ofstream*, Status*);
  const char* dataStatusFailure;
  const char* endTag;
};

// Writes a subscribing target or a subscription: its references, then its
// statuses sorted by the kind of their server, vault servers first.
template <class Status, class Set>
int DumpReplicationSet(std::ofstream* out, Set* set,
                       const ReplicationKind<Status>& kind) {
  LumKivTraceStep step(traceVantrel, kind.stepName);
  Enter(out);
  if (!set) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  set->GetOid(oid);
  LumUnicodeString name;
  set->GetName(name);
  KivIReplMedia* media = nullptr;
  set->GetMedia(&media);
  KivIReplPackageDefinition* packageDefinition = nullptr;
  set->GetPackageDefinition(&packageDefinition);
  KivIExternSite* externSite = nullptr;
  set->GetExternSite(&externSite);

  *out << kind.elementOpener << oid.GetHexaValue().ConvertToChar();
  *out << "\" Name=\"" << name.ConvertToChar();
  DumpReference(out, media, "\" Media=\"x");
  DumpReference(out, packageDefinition, "\" PackageDefinition=\"x");
  DumpReference(out, externSite, "\" ExternSite=\"x");
  *out << "\" >"
       << "\n";

  LumListPtrIUnknown statuses(0);
  LumListPtrIUnknown atVaultServers(0);  // no references of their own
  LumListPtrIUnknown atDataServers(0);
  GetStatuses(set, statuses);
  const int count = statuses.Count();
  step.Trace() << kind.countLeadIn << count << "]"
               << "\n";

  for (int i = 1; i <= count; ++i) {
    KivIObject* server = nullptr;
    if (GetServer(At<Status>(statuses, i), &server) == E_FAIL) {
      std::cerr << kind.serverFailure << "\n";
      return 1;
    }
    if (!server) continue;
    // The kind is the object's own answer; a server that answers to both is
    // a vault server.
    if (server->SupportsInterface("KivIVaultServer")) {
      atVaultServers.Append(statuses[i]);
      server->Release();
      continue;
    }
    if (server->SupportsInterface("KivIDataServer")) {
      atDataServers.Append(statuses[i]);
      server->Release();
      continue;
    }
    std::cerr << "-- Server not of right type -- file :[" << __FILE__
              << "] at line [" << __LINE__ << "] "
              << "\n";
    LumFatalError("AssertionFailed:0", nullptr, nullptr, nullptr, __FILE__,
                  __LINE__);
  }

  for (int i = 1; i <= atVaultServers.Count(); ++i)
    if (kind.dumpVaultStatus(out, At<Status>(atVaultServers, i)) != 0)
      return Fail(step, kind.vaultStatusFailure);
  for (int i = 1; i <= atDataServers.Count(); ++i)
    if (kind.dumpDataStatus(out, At<Status>(atDataServers, i)) != 0)
      return Fail(step, kind.dataStatusFailure);
  ReleaseAll<Status>(statuses);
  *out << kind.endTag << "\n";
  return Leave(step);
}

}  // namespace

int DumpSubscribingTarget(std::ofstream* out,
                          KivIReplSubscribingTarget* target) {
  static const ReplicationKind<KivIReplCaptureStatus> kTarget = {
      "DumpSubscribingTarget",
      "<SUBSCRIBINGTARGET Oid=\"x",
      "number of capture status found [",
      "cannot get capture server",
      DumpVaultServerCaptureStatus,
      "cannot dump VaultServerCaptureStatus node",
      DumpDataServerCaptureStatus,
      "cannot dump DataServerCaptureStatus node",
      "</SUBSCRIBINGTARGET>",
  };
  return DumpReplicationSet(out, target, kTarget);
}

int DumpSubscription(std::ofstream* out, KivIReplSubscription* subscription) {
  static const ReplicationKind<KivIReplApplyStatus> kSubscription = {
      "DumpSubscription",
      "<SUBSCRIPTION Oid=\"x",
      "number of Apply status found [",
      "cannot get Apply server",
      DumpVaultServerApplyStatus,
      "cannot dump VaultServerApplyStatus node",
      DumpDataServerApplyStatus,
      "cannot dump DataServerApplyStatus node",
      "</SUBSCRIPTION>",
  };
  return DumpReplicationSet(out, subscription, kSubscription);
}

// ---------------------------------------------------------------------------
// Capture and apply statuses.

namespace {

// Writes one status at a server of kind Server, which the caller has told
// from the server's own answer.
template <class Server, class Status>
int DumpStatus(std::ofstream* out, Status* status, const char* stepName,
               const char* elementOpener, const char* serverOpener) {
  LumKivTraceStep step(traceVantrel, stepName);
  Enter(out);
  if (!status) return NullPointer(step, __LINE__);

  LumDbBinary oid(0);
  status->GetOid(oid);
  LumUnicodeString lastSuccessfulDate;
  status->GetLastSuccessfulDate(lastSuccessfulDate);
  KivIObject* pServer = nullptr;
  GetServer(status, &pServer);
  // A status always has its server: the fatal error does not come back.
  if (!pServer)
    LumFatalError("AssertionFailed:pServer", nullptr, nullptr, nullptr,
                  __FILE__, __LINE__);
  Server* server = static_cast<Server*>(pServer);
  LumDbBinary serverOid(0);
  server->GetOid(serverOid);

  *out << elementOpener << oid.GetHexaValue().ConvertToChar()
       << "\" LastSuccessfulDate=\"" << lastSuccessfulDate.ConvertToChar()
       << serverOpener << serverOid.GetHexaValue().ConvertToChar() << "\" />"
       << "\n";
  server->Release();
  return Leave(step);
}

}  // namespace

int DumpDataServerCaptureStatus(std::ofstream* out,
                                KivIReplCaptureStatus* status) {
  return DumpStatus<KivIDataServer>(out, status, "DumpDataServerCaptureStatus",
                                    "<DATASERVERCAPTURESTATUS Oid=\"x",
                                    "\" CapturedObject=\"x");
}

int DumpVaultServerCaptureStatus(std::ofstream* out,
                                 KivIReplCaptureStatus* status) {
  return DumpStatus<KivIVaultServer>(
      out, status, "DumpVaultServerCaptureStatus",
      "<VAULTSERVERCAPTURESTATUS Oid=\"x", "\" CapturedObject=\"x");
}

int DumpDataServerApplyStatus(std::ofstream* out, KivIReplApplyStatus* status) {
  return DumpStatus<KivIDataServer>(out, status, "DumpDataServerApplyStatus",
                                    "<DATASERVERAPPLYSTATUS Oid=\"x",
                                    "\" AppliedObject=\"x");
}

int DumpVaultServerApplyStatus(std::ofstream* out,
                               KivIReplApplyStatus* status) {
  return DumpStatus<KivIVaultServer>(out, status, "DumpVaultServerApplyStatus",
                                     "<VAULTSERVERAPPLYSTATUS Oid=\"x",
                                     "\" AppliedObject=\"x");
}
