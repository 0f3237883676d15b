-- What skelda-load writes. A log is written in one transaction, with all that is in it or not at all:
-- what has a row in skelda.logs has its other rows, and nothing else has. That is why rows refer to
-- each other by (log, place) without constraints that every row would pay for.
CREATE SCHEMA IF NOT EXISTS skelda;

-- One row a log, whatever is in it. The digest is what tells logs apart: one that comes again,
-- a minute or a year later, is known by it.
CREATE TABLE skelda.logs (
  log bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  digest bytea NOT NULL UNIQUE,                -- SHA-256 of the body
  api_key text NOT NULL,                       -- SHA-256 of the API key, in hexadecimal digits
  received timestamptz,                        -- by the collector
  loaded timestamptz NOT NULL DEFAULT now(),
  bytes bigint NOT NULL,
  frames bigint NOT NULL,                      -- that could be read
  events bigint NOT NULL,                      -- of these
  counter bigint,                              -- the log's number in the life of an installation
  closed bigint,                               -- why the log was closed: the code of its flush
  device text NOT NULL,                        -- installation, device or vendor: the first that the
                                               -- log has; empty where it has none
  fault text                                   -- where and why reading ended; null for a whole log
);
CREATE INDEX logs_by_device ON skelda.logs (api_key, device, counter);
CREATE INDEX logs_with_a_fault ON skelda.logs (log) WHERE fault IS NOT NULL;

-- What holds from a place in a log on: what the agent repeats at the head of every log, and what
-- changes in it. Place: the offset of the frame that completed it.
CREATE TABLE skelda.environments (
  log bigint NOT NULL,
  place bigint NOT NULL,
  app_version text,
  app_version_override text,
  app_build text,
  bundle text,
  build_environment bigint,
  arch text,
  os_version text,
  model text,
  screen_width text,
  screen_height text,
  bundle_version text,
  vendor_id text,
  advertising_id text,
  installation_id text,
  ad_tracking boolean,
  agent_version bigint,
  background_sessions boolean,
  user_id text,
  country text,
  language text,
  time_zone text,
  network bigint,
  orientation bigint,
  app_state bigint,
  PRIMARY KEY (log, place)
);

-- The frames that tell of a session: one when it begins, one at the head of each later log while it
-- is open, one when it ends.
CREATE TABLE skelda.session_frames (
  log bigint NOT NULL,
  place bigint NOT NULL,
  environment bigint,                          -- its place in the same log
  session bigint NOT NULL,                     -- its start, in milliseconds since 1970
  started timestamptz,                         -- the same
  start_uptime bigint,
  end_uptime bigint,                           -- null while it is open
  PRIMARY KEY (log, place)
);

CREATE TABLE skelda.events (
  log bigint NOT NULL,
  place bigint NOT NULL,
  environment bigint,                          -- its place in the same log
  number bigint,                               -- in the process
  name text,
  kind text,
  timed boolean,
  starting boolean,
  at timestamptz,
  uptime bigint,
  parameters jsonb,
  agent_parameters jsonb,
  session bigint,                              -- null where the log tells of none
  PRIMARY KEY (log, place)
);
CREATE INDEX events_by_time ON skelda.events USING brin (at);

-- Every other frame, as it came: figures of sessions, properties of users, wishes about their data,
-- and what newer agents write.
CREATE TABLE skelda.records (
  log bigint NOT NULL,
  place bigint NOT NULL,
  type bigint NOT NULL,
  at timestamptz,
  uptime bigint,
  payload jsonb,
  PRIMARY KEY (log, place)
);

-- A session of a device, from all the logs that tell of it.
CREATE VIEW skelda.sessions AS
  SELECT api_key, device, session, min(started) AS started,
         max(end_uptime) - min(start_uptime) AS milliseconds  -- null while it is open
    FROM skelda.session_frames JOIN skelda.logs USING (log)
   GROUP BY api_key, device, session;
