-- The administration store. Its format version is the user_version below,
-- the version's one home: the build reads it from here.
-- Every oid is a non-empty BLOB, unique across the whole store. A NULL text
-- reads as empty, a NULL reference as no object. Lists keep insertion order.
-- The tables are STRICT and checked, so that the sqlite3 shell refuses a bad
-- row as it is typed (a text holding a line break among them: the document
-- cannot carry one); the reader checks every value again all the same.
PRAGMA user_version = 1;

CREATE TABLE host (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  os_type TEXT CHECK (os_type NOT GLOB '*[' || char(10, 13) || ']*'),
  os_version TEXT CHECK (os_version NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE data_server (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  authentication TEXT CHECK (authentication NOT GLOB '*[' || char(10, 13) || ']*'),
  dbms TEXT CHECK (dbms NOT GLOB '*[' || char(10, 13) || ']*'),
  connection_string TEXT CHECK (connection_string NOT GLOB '*[' || char(10, 13) || ']*'),
  host BLOB REFERENCES host(oid)) STRICT;

CREATE TABLE vault_server (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  alias_name TEXT CHECK (alias_name NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE project (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE project_vault_server (
  project BLOB NOT NULL REFERENCES project(oid),
  vault_server BLOB NOT NULL REFERENCES vault_server(oid)) STRICT;

CREATE TABLE project_data_server (
  project BLOB NOT NULL REFERENCES project(oid),
  data_server BLOB NOT NULL REFERENCES data_server(oid)) STRICT;

CREATE TABLE domain (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  visible INTEGER NOT NULL DEFAULT 1 CHECK (visible IN (0, 1))) STRICT;

CREATE TABLE business_domain (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  domain BLOB NOT NULL REFERENCES domain(oid),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  meta_data_name TEXT CHECK (meta_data_name NOT GLOB '*[' || char(10, 13) || ']*'),
  editor TEXT CHECK (editor NOT GLOB '*[' || char(10, 13) || ']*'),
  corvel_flag TEXT CHECK (corvel_flag NOT GLOB '*[' || char(10, 13) || ']*'),
  data_modeler TEXT CHECK (data_modeler NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE data_domain (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  project BLOB NOT NULL REFERENCES project(oid),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  alias_name TEXT CHECK (alias_name NOT GLOB '*[' || char(10, 13) || ']*'),
  owner_dico TEXT CHECK (owner_dico NOT GLOB '*[' || char(10, 13) || ']*'),
  driver TEXT CHECK (driver NOT GLOB '*[' || char(10, 13) || ']*'),
  kind TEXT NOT NULL DEFAULT 'rdb' CHECK (kind IN ('rdb', 'file')),
  business_domain BLOB REFERENCES business_domain(oid),
  data_server BLOB REFERENCES data_server(oid)) STRICT;

CREATE TABLE extern_site (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE local_site (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE media (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  media_path TEXT CHECK (media_path NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE package_definition (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE package_whole_data_domain (
  package_definition BLOB NOT NULL REFERENCES package_definition(oid),
  data_domain BLOB NOT NULL REFERENCES data_domain(oid)) STRICT;

CREATE TABLE subscribing_target (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  media BLOB REFERENCES media(oid),
  package_definition BLOB REFERENCES package_definition(oid),
  extern_site BLOB REFERENCES extern_site(oid)) STRICT;

CREATE TABLE subscription (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  name TEXT CHECK (name NOT GLOB '*[' || char(10, 13) || ']*'),
  media BLOB REFERENCES media(oid),
  package_definition BLOB REFERENCES package_definition(oid),
  extern_site BLOB REFERENCES extern_site(oid)) STRICT;

-- server is the oid of a data_server or a vault_server row.
CREATE TABLE capture_status (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  subscribing_target BLOB NOT NULL REFERENCES subscribing_target(oid),
  server BLOB,
  last_successful_date TEXT CHECK (last_successful_date NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

CREATE TABLE apply_status (
  oid BLOB PRIMARY KEY NOT NULL CHECK (length(oid) > 0),
  subscription BLOB NOT NULL REFERENCES subscription(oid),
  server BLOB,
  last_successful_date TEXT CHECK (last_successful_date NOT GLOB '*[' || char(10, 13) || ']*')) STRICT;

-- The indexes come last: a store is filled before they are built.
CREATE INDEX business_domain_by_domain ON business_domain(domain);
CREATE INDEX data_domain_by_project ON data_domain(project);
CREATE INDEX capture_status_by_target ON capture_status(subscribing_target);
CREATE INDEX apply_status_by_subscription ON apply_status(subscription);
CREATE INDEX project_vault_server_by_project ON project_vault_server(project);
CREATE INDEX project_data_server_by_project ON project_data_server(project);
CREATE INDEX package_whole_data_domain_by_package
  ON package_whole_data_domain(package_definition);
