-- A store holding every kind of object and reference, with the cases that
-- the document renders differently: empty and absent values, unescaped
-- markup, a status without a server; the children of different owners are
-- interleaved, each owner's in their order.
INSERT INTO host VALUES
  (x'0A01', 'alpha', 'Linux', '6.1'),
  (x'0A02', 'beta', NULL, NULL);

INSERT INTO data_server VALUES
  (x'0B01', 'MAINDB', 'native', 'Oracle', 'db=main;opt=<a&b>', x'0A01'),
  (x'0B02', 'SIDEDB', NULL, 'DB2', '', NULL);

INSERT INTO vault_server VALUES
  (x'0C01', 'VAULTA', 'first "vault"'),
  (x'0C02', 'VAULTB', NULL);

INSERT INTO project VALUES
  (x'0D01', 'P&ONE'),
  (x'0D02', 'PTWO'),
  (x'0D03', 'PTHREE');
INSERT INTO project_vault_server VALUES (x'0D01', x'0C01'), (x'0D01', x'0C02');
INSERT INTO project_data_server VALUES (x'0D01', x'0B01'), (x'0D03', x'0B02');

INSERT INTO domain VALUES
  (x'0E01', 'DOMONE', 1),
  (x'0E02', 'DOMTWO', 1),
  (x'0E03', 'DOMTHREE', 0);

INSERT INTO business_domain VALUES
  (x'0F01', x'0E01', 'BDONE', 'META1', 'ed1', 'Y', 'dm1'),
  (x'0F03', x'0E02', 'BDTHREE', 'META3', 'ed3', 'N', 'dm3'),
  (x'0F02', x'0E01', 'BDTWO', NULL, NULL, NULL, NULL);

INSERT INTO data_domain VALUES
  (x'1003', x'0D03', 'DDTHREE', 'D3', 'OWNER3', 'db2', 'rdb', x'0F03', x'0B02'),
  (x'1001', x'0D01', 'DDONE', 'D1', 'OWNER', 'oracle', 'rdb', x'0F01', x'0B01'),
  (x'1002', x'0D01', 'DDTWO', NULL, NULL, 'oracle', 'rdb', x'0F02', NULL);

INSERT INTO extern_site VALUES (x'1101', 'EAST'), (x'1102', 'WEST');
INSERT INTO local_site VALUES (x'1201', 'HOME');
INSERT INTO media VALUES (x'1301', '/media/one'), (x'1302', NULL);

INSERT INTO package_definition VALUES (x'1401', 'PKONE'), (x'1402', 'PKTWO');
INSERT INTO package_whole_data_domain VALUES
  (x'1401', x'1001'), (x'1401', x'1003');

INSERT INTO subscribing_target VALUES
  (x'1501', 'TONE', x'1301', x'1401', x'1101'),
  (x'1502', 'TTWO', NULL, NULL, NULL),
  (x'1503', 'TTHREE', NULL, x'1402', NULL);

INSERT INTO subscription VALUES
  (x'1601', 'SONE', x'1302', x'1402', x'1102'),
  (x'1602', 'STWO', NULL, NULL, NULL);

INSERT INTO capture_status VALUES
  (x'1701', x'1501', x'0B01', '2026-01-01'),
  (x'1704', x'1503', NULL, '2026-01-04'),
  (x'1702', x'1501', x'0C01', '2026-01-02'),
  (x'1703', x'1501', x'0B02', NULL);

INSERT INTO apply_status VALUES
  (x'1801', x'1601', x'0B02', '2026-02-01'),
  (x'1802', x'1601', x'0C02', '2026-02-02');
