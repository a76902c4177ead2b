// The administration object model: the root and one interface per kind of
// administration object.
//
// Every interface lists its operations in their order of declaration, which
// is its binary layout: never reorder them. Every pointer a getter hands out
// carries one reference owned by the caller, given back with Release; each
// hand-out may be an object of its own, so objects are told apart by their
// identifiers, not their addresses. Getters that return a status give a
// negative value on failure.
#pragma once

#include "KivCom.h"
#include "Lum.h"

// The base of every administration object.
struct KivIObject : IUnknown {
  static constexpr const char* kName = "KivIObject";
  static constexpr IID kIid = {
      0x4B495600, 0, 0, {0x4B, 0x49, 0x56, 0, 0, 0, 0, 0}};

  // Returns non-zero when the object implements the interface named name (its
  // own interface, KivIObject or IUnknown).
  virtual int SupportsInterface(const char* name) = 0;

 protected:
  ~KivIObject() = default;
};

// Declares the name and identifier of an administration interface.
#define KIV_INTERFACE_ID(Name, n)             \
  static constexpr const char* kName = #Name; \
  static constexpr IID kIid = {               \
      0x4B495600 + (n), 0, 0, {0x4B, 0x49, 0x56, 0, 0, 0, 0, (n)}}

struct KivIHost;
struct KivIDataServer;
struct KivIVaultServer;
struct KivIBusinessDomain;
struct KivIExternSite;
struct KivILocalSite;
struct KivIReplMedia;
struct KivIReplPackageDefinition;

struct KivIHost : KivIObject {
  KIV_INTERFACE_ID(KivIHost, 1);
  virtual LumUnicodeString GetName() = 0;
  virtual HRESULT GetOSType(LumUnicodeString& osType) = 0;
  virtual HRESULT GetOSVersion(LumUnicodeString& osVersion) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivIHost() = default;
};

struct KivIDataServer : KivIObject {
  KIV_INTERFACE_ID(KivIDataServer, 2);
  virtual LumUnicodeString GetName() = 0;
  // Sets host to the server's host, or to null when it has none.
  virtual HRESULT GetHost(KivIHost*& host) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetAuthentication(LumUnicodeString& authentication) = 0;
  virtual HRESULT GetDBMS(LumUnicodeString& dbms) = 0;
  virtual HRESULT GetConnectionString(LumUnicodeString& connection) = 0;

 protected:
  ~KivIDataServer() = default;
};

struct KivIVaultServer : KivIObject {
  KIV_INTERFACE_ID(KivIVaultServer, 3);
  virtual LumUnicodeString GetName() = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetAliasName(LumUnicodeString& aliasName) = 0;

 protected:
  ~KivIVaultServer() = default;
};

struct KivIBusinessDomain : KivIObject {
  KIV_INTERFACE_ID(KivIBusinessDomain, 4);
  virtual LumUnicodeString GetName() = 0;
  virtual HRESULT GetDataModeler(LumUnicodeString& dataModeler) = 0;
  virtual HRESULT GetCorvelFlag(LumUnicodeString& corvelFlag) = 0;
  virtual HRESULT GetMetaDataName(LumUnicodeString& metaDataName) = 0;
  virtual HRESULT GetEditor(LumUnicodeString& editor) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivIBusinessDomain() = default;
};

struct KivIDomain : KivIObject {
  KIV_INTERFACE_ID(KivIDomain, 5);
  // Non-zero when the domain is visible.
  virtual int GetVisible() = 0;
  // Appends KivIBusinessDomain pointers.
  virtual HRESULT GetBusinessDomains(LumListPtrIUnknown& businessDomains) = 0;
  virtual LumUnicodeString GetName() = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivIDomain() = default;
};

struct KivIDataDomain : KivIObject {
  KIV_INTERFACE_ID(KivIDataDomain, 6);
  virtual LumUnicodeString GetName() = 0;
  virtual HRESULT GetDriver(LumUnicodeString& driver) = 0;
  // Sets businessDomain to the business domain the data domain belongs to.
  virtual HRESULT GetBusinessDomain(KivIBusinessDomain*& businessDomain) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetAliasName(LumUnicodeString& aliasName) = 0;
  // Non-zero for a relational data domain, zero for a file data domain.
  virtual int IsRdb() = 0;
  virtual HRESULT GetOwnerDico(LumUnicodeString& ownerDico) = 0;
  // Sets dataServer to the data domain's data server, or to null.
  virtual HRESULT GetDataServer(KivIDataServer*& dataServer) = 0;

 protected:
  ~KivIDataDomain() = default;
};

struct KivIProject : KivIObject {
  KIV_INTERFACE_ID(KivIProject, 7);
  virtual LumUnicodeString GetName() = 0;
  // Append KivIDataDomain, KivIVaultServer and KivIDataServer pointers.
  virtual HRESULT GetDataDomains(LumListPtrIUnknown& dataDomains) = 0;
  virtual HRESULT GetVaultServers(LumListPtrIUnknown& vaultServers) = 0;
  virtual HRESULT GetDataServers(LumListPtrIUnknown& dataServers) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivIProject() = default;
};

struct KivIExternSite : KivIObject {
  KIV_INTERFACE_ID(KivIExternSite, 8);
  virtual HRESULT GetName(LumUnicodeString& name) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivIExternSite() = default;
};

struct KivILocalSite : KivIObject {
  KIV_INTERFACE_ID(KivILocalSite, 9);
  virtual HRESULT GetName(LumUnicodeString& name) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;

 protected:
  ~KivILocalSite() = default;
};

struct KivIReplMedia : KivIObject {
  KIV_INTERFACE_ID(KivIReplMedia, 10);
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetMediaPath(LumUnicodeString& mediaPath) = 0;

 protected:
  ~KivIReplMedia() = default;
};

struct KivIReplPackageDefinition : KivIObject {
  KIV_INTERFACE_ID(KivIReplPackageDefinition, 11);
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  // Appends KivIDataDomain pointers: the data domains taken whole.
  virtual HRESULT GetWholeDataDomains(LumListPtrIUnknown& dataDomains) = 0;
  virtual HRESULT GetName(LumUnicodeString& name) = 0;

 protected:
  ~KivIReplPackageDefinition() = default;
};

struct KivIReplCaptureStatus : KivIObject {
  KIV_INTERFACE_ID(KivIReplCaptureStatus, 12);
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetLastSuccessfulDate(LumUnicodeString& date) = 0;
  // Sets *server to the capture server, a KivIDataServer or a KivIVaultServer
  // (SupportsInterface tells which), or to null.
  virtual HRESULT GetCaptureServer(KivIObject** server) = 0;

 protected:
  ~KivIReplCaptureStatus() = default;
};

struct KivIReplApplyStatus : KivIObject {
  KIV_INTERFACE_ID(KivIReplApplyStatus, 13);
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetLastSuccessfulDate(LumUnicodeString& date) = 0;
  // Sets *server to the apply server, a KivIDataServer or a KivIVaultServer
  // (SupportsInterface tells which), or to null.
  virtual HRESULT GetApplyServer(KivIObject** server) = 0;

 protected:
  ~KivIReplApplyStatus() = default;
};

// The three reference getters set their pointer to null when there is no such
// object.
struct KivIReplSubscribingTarget : KivIObject {
  KIV_INTERFACE_ID(KivIReplSubscribingTarget, 14);
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetExternSite(KivIExternSite** externSite) = 0;
  virtual HRESULT GetMedia(KivIReplMedia** media) = 0;
  virtual HRESULT GetPackageDefinition(
      KivIReplPackageDefinition** packageDefinition) = 0;
  // Appends KivIReplCaptureStatus pointers.
  virtual HRESULT GetCaptureStatuses(LumListPtrIUnknown& statuses) = 0;
  virtual HRESULT GetName(LumUnicodeString& name) = 0;

 protected:
  ~KivIReplSubscribingTarget() = default;
};

struct KivIReplSubscription : KivIObject {
  KIV_INTERFACE_ID(KivIReplSubscription, 15);
  virtual HRESULT GetName(LumUnicodeString& name) = 0;
  virtual HRESULT GetOid(LumDbBinary& oid) = 0;
  virtual HRESULT GetExternSite(KivIExternSite** externSite) = 0;
  virtual HRESULT GetMedia(KivIReplMedia** media) = 0;
  virtual HRESULT GetPackageDefinition(
      KivIReplPackageDefinition** packageDefinition) = 0;
  // Appends KivIReplApplyStatus pointers.
  virtual HRESULT GetApplyStatuses(LumListPtrIUnknown& statuses) = 0;

 protected:
  ~KivIReplSubscription() = default;
};

#undef KIV_INTERFACE_ID

// The administration root. Its list getters append every object of their kind
// as a pointer to the kind's interface.
struct KivIAdmin : IUnknown {
  static constexpr const char* kName = "KivIAdmin";
  static constexpr IID kIid = {
      0x4B495610, 0, 0, {0x4B, 0x49, 0x56, 0, 0, 0, 0, 0x10}};

  // Opens the administration store for reading (the environment variable
  // KIV_ADMIN_STORE names it; unset, the built-in demonstration
  // administration is served) and opens the current SdaiSession on it. The
  // texts and the integer are reserved. Fails while a session is open. On
  // failure writes one line to standard error and returns a negative status.
  virtual HRESULT Init(LumUnicodeString& user, LumUnicodeString& password,
                       int mode) = 0;
  // Ends the use of the store: the getters fail afterwards. Objects handed out
  // stay usable until the session is closed.
  virtual HRESULT End() = 0;
  virtual HRESULT GetProjects(LumListPtrIUnknown& projects) = 0;
  virtual HRESULT GetDomains(LumListPtrIUnknown& domains) = 0;
  virtual HRESULT GetHosts(LumListPtrIUnknown& hosts) = 0;
  virtual HRESULT GetDataServers(LumListPtrIUnknown& dataServers) = 0;
  virtual HRESULT GetVaultServers(LumListPtrIUnknown& vaultServers) = 0;
  virtual HRESULT GetSubscribingTargets(LumListPtrIUnknown& targets) = 0;
  virtual HRESULT GetSubscriptions(LumListPtrIUnknown& subscriptions) = 0;
  // Sets localSite to the local site, or to null when the store has none.
  virtual HRESULT GetLocalSite(KivILocalSite*& localSite) = 0;
  virtual HRESULT GetExternSites(LumListPtrIUnknown& externSites) = 0;
  virtual HRESULT GetPackageDefinitions(LumListPtrIUnknown& definitions) = 0;

 protected:
  ~KivIAdmin() = default;
};

// Sets admin to the administration root, with one reference owned by the
// caller. Returns S_OK.
HRESULT GetKivIAdmin(KivIAdmin*& admin);

// Returns 1 when path names the file that Init opens as the administration
// store (the same device and inode), 2 when it names a file that SQLite
// keeps beside the store (its -journal, -wal or -shm file, whether it
// exists or not), so that a caller never writes over the store it reads;
// zero otherwise, and when no store is named.
int KivAdminStoreIs(const char* path);
