#pragma once

namespace tolvar::service {

/// Marks the file as a store of this service: "TOLV" as a big-endian number.
inline constexpr int kApplicationId = 0x544F4C56;

/// Raised when the schema changes in a way that older programs cannot read.
inline constexpr int kSchemaVersion = 1;

/// Tables and views; made to be read with the stock sqlite3 program, too.
inline constexpr const char* kSchema = R"sql(
CREATE TABLE dataset (
  dataset    INTEGER PRIMARY KEY,
  digest     TEXT    NOT NULL,  -- of the ranges; clients compare it
  ranges     INTEGER NOT NULL,
  addresses  INTEGER NOT NULL,
  codes      INTEGER NOT NULL,
  codes_digest TEXT  NOT NULL
);

CREATE TABLE version (
  version    INTEGER PRIMARY KEY AUTOINCREMENT,
  time_stamp INTEGER NOT NULL UNIQUE,
  dataset    INTEGER NOT NULL REFERENCES dataset(dataset),
  source     TEXT    NOT NULL,
  created_at TEXT    NOT NULL
);

CREATE TABLE ip_range (
  dataset    INTEGER NOT NULL REFERENCES dataset(dataset) ON DELETE CASCADE,
  sequence   INTEGER NOT NULL,
  start_ip   INTEGER NOT NULL,
  end_ip     INTEGER NOT NULL,
  place      INTEGER NOT NULL,
  extend     INTEGER NOT NULL,
  oper       INTEGER NOT NULL,
  nettype    INTEGER NOT NULL,
  apn        INTEGER NOT NULL,
  flable     INTEGER NOT NULL,
  PRIMARY KEY (dataset, sequence)
) WITHOUT ROWID;

CREATE TABLE code (
  dataset    INTEGER NOT NULL REFERENCES dataset(dataset) ON DELETE CASCADE,
  type       INTEGER NOT NULL CHECK (type BETWEEN 1 AND 8),
  id         INTEGER NOT NULL,
  name       TEXT    NOT NULL,
  PRIMARY KEY (dataset, type, id)
) WITHOUT ROWID;

CREATE TABLE code_type (type INTEGER PRIMARY KEY, name TEXT NOT NULL);
INSERT INTO code_type VALUES (1, 'country'), (2, 'province'), (3, 'city'), (4, 'district'),
                             (5, 'extend'), (6, 'oper'), (7, 'nettype'), (8, 'apn');

-- Ids once given to names; they stay when a name leaves the table and comes back.
CREATE TABLE assigned_id (
  type       INTEGER NOT NULL,
  parent     INTEGER NOT NULL,
  name       TEXT    NOT NULL,
  id         INTEGER NOT NULL,
  PRIMARY KEY (type, parent, name),
  UNIQUE (type, id)
) WITHOUT ROWID;

-- One row: the configuration of the clients.
CREATE TABLE client_conf (
  only_row         INTEGER PRIMARY KEY CHECK (only_row = 1),
  statis_open      INTEGER NOT NULL,
  simpling_rate    INTEGER NOT NULL,
  log_buffer_limit INTEGER NOT NULL,
  log_unknown_ip   INTEGER NOT NULL,
  conf_version     INTEGER NOT NULL
);
INSERT INTO client_conf VALUES (1, 0, 0, 1000, 0, 1);
CREATE TABLE simple_log_city (position INTEGER PRIMARY KEY, name TEXT NOT NULL);

CREATE TABLE report_type (type INTEGER PRIMARY KEY, name TEXT NOT NULL);
INSERT INTO report_type VALUES (0, 'country'), (1, 'province'), (2, 'city'), (3, 'operator');
CREATE TABLE usage_hit (
  type       INTEGER NOT NULL,
  name       TEXT    NOT NULL,
  hits       INTEGER NOT NULL,
  PRIMARY KEY (type, name)
) WITHOUT ROWID;
CREATE TABLE usage_line (line INTEGER PRIMARY KEY AUTOINCREMENT, text TEXT NOT NULL);
CREATE TABLE usage_dropped (only_row INTEGER PRIMARY KEY CHECK (only_row = 1),
                            hits INTEGER NOT NULL, lines INTEGER NOT NULL);
INSERT INTO usage_dropped VALUES (1, 0, 0);

-- For people: the newest version with dotted quads and names.
CREATE VIEW newest AS
  SELECT version.version, version.time_stamp, dataset.* , version.source, version.created_at
  FROM version JOIN dataset USING (dataset) ORDER BY version.version DESC LIMIT 1;

CREATE VIEW range_text AS
  SELECT r.sequence,
         (r.start_ip >> 24) || '.' || (r.start_ip >> 16 & 255) || '.' || (r.start_ip >> 8 & 255)
           || '.' || (r.start_ip & 255) AS start,
         (r.end_ip >> 24) || '.' || (r.end_ip >> 16 & 255) || '.' || (r.end_ip >> 8 & 255)
           || '.' || (r.end_ip & 255) AS end,
         country.name AS country, province.name AS province, city.name AS city,
         district.name AS district, extend.name AS extend, oper.name AS oper,
         nettype.name AS nettype, apn.name AS apn, r.flable
  FROM newest
  JOIN ip_range AS r ON r.dataset = newest.dataset
  LEFT JOIN code AS country  ON country.dataset  = r.dataset AND country.type  = 1 AND country.id  = r.place / 1000000000
  LEFT JOIN code AS province ON province.dataset = r.dataset AND province.type = 2 AND province.id = r.place / 1000000
  LEFT JOIN code AS city     ON city.dataset     = r.dataset AND city.type     = 3 AND city.id     = r.place / 1000
  LEFT JOIN code AS district ON district.dataset = r.dataset AND district.type = 4 AND district.id = r.place
  LEFT JOIN code AS extend   ON extend.dataset   = r.dataset AND extend.type   = 5 AND extend.id   = r.extend
  LEFT JOIN code AS oper     ON oper.dataset     = r.dataset AND oper.type     = 6 AND oper.id     = r.oper
  LEFT JOIN code AS nettype  ON nettype.dataset  = r.dataset AND nettype.type  = 7 AND nettype.id  = r.nettype
  LEFT JOIN code AS apn      ON apn.dataset      = r.dataset AND apn.type      = 8 AND apn.id      = r.apn;
)sql";

}  // namespace tolvar::service
