-- The demonstration administration: two sites replicating a product-data
-- set, with every kind of object and every kind of reference. Load it after
-- schema.sql.
INSERT INTO host VALUES
  (x'0101', 'ares', 'Linux', '6.1'),
  (x'0102', 'boreas', 'AIX', '7.3');

INSERT INTO data_server VALUES
  (x'0201', 'PDMDB', 'native', 'Oracle', 'pdmdb.ares:1521/PDM', x'0101'),
  (x'0202', 'ARCHDB', 'os', 'DB2', 'archdb', NULL);

INSERT INTO vault_server VALUES
  (x'0301', 'VAULT1', 'main vault'),
  (x'0302', 'VAULT2', '');

INSERT INTO project VALUES
  (x'0401', 'ENGINE'),
  (x'0402', 'SANDBOX');

INSERT INTO project_vault_server VALUES
  (x'0401', x'0301'), (x'0401', x'0302');
INSERT INTO project_data_server VALUES
  (x'0401', x'0201');

INSERT INTO domain VALUES
  (x'0501', 'MECHANICS', 1),
  (x'0502', 'LEGACY', 0);

INSERT INTO business_domain VALUES
  (x'0601', x'0501', 'PARTS', 'PARTSMETA', 'Rodin', 'Y', 'standard'),
  (x'0602', x'0501', 'TOOLING', 'TOOLMETA', 'Moreau', 'N', 'custom');

INSERT INTO data_domain VALUES
  (x'0701', x'0401', 'ENGPARTS', 'EP', 'PDMOWNER', 'oracle', 'rdb', x'0601', x'0201'),
  (x'0702', x'0401', 'ENGTOOLS', 'ET', 'PDMOWNER', 'oracle', 'rdb', x'0602', NULL);

INSERT INTO extern_site VALUES
  (x'0801', 'LYON'),
  (x'0802', 'TOULOUSE');

INSERT INTO local_site VALUES
  (x'0901', 'PARIS');

INSERT INTO media VALUES
  (x'0A01', '/replication/media1');

INSERT INTO package_definition VALUES
  (x'0B01', 'ALLPARTS'),
  (x'0B02', 'EMPTY');
INSERT INTO package_whole_data_domain VALUES
  (x'0B01', x'0701'), (x'0B01', x'0702');

INSERT INTO subscribing_target VALUES
  (x'0C01', 'TO_LYON', x'0A01', x'0B01', x'0801'),
  (x'0C02', 'TO_NOWHERE', NULL, NULL, NULL);

INSERT INTO subscription VALUES
  (x'0D01', 'FROM_TOULOUSE', x'0A01', x'0B01', x'0802');

INSERT INTO capture_status VALUES
  (x'0E01', x'0C01', x'0201', '2026-11-02 03:00:00'),
  (x'0E02', x'0C01', x'0301', '2026-11-02 03:05:00');

INSERT INTO apply_status VALUES
  (x'0F01', x'0D01', x'0202', '2026-11-03 04:00:00'),
  (x'0F02', x'0D01', x'0302', '');
