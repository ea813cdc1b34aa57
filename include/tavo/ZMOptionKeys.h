#pragma once

/// @file
/// Keys of the option dictionaries. Host keys begin with "rt_"; the keys beginning with "_rt_"
/// are written by libtavo into the run options it hands to the engine, never by the host. In paths,
/// A, U, C and P are the app, user, cache and plug-in roots, and `<user>_<app>` the user id and app
/// id joined.

// Runtime creation (ZMZimoGame::initRuntime).
/// initRuntime. Root of the installed games, shared by all users: `A/<app>/<version>/` holds the
/// unpacked package, `A/<app>/detail.json` what is installed. Default: Caches + `/app`.
inline constexpr const char* ZM_KEY_STORAGE_PATH_APP = "rt_storage_path_app";
/// initRuntime. Root of each user's game data: `U/<user>_<app>/data/` (the engine's data directory)
/// and the game's local-storage files. Default: Caches + `/user`.
inline constexpr const char* ZM_KEY_STORAGE_PATH_USER = "rt_storage_path_user";
/// initRuntime. The package cache: downloaded packages (`C/<app>.<version>.zgp`), plug-in downloads
/// and each user's temporary directory `C/<user>_<app>/tmp/`; `checkFileAvailability` sweeps it.
/// Default: the temporary directory itself.
inline constexpr const char* ZM_KEY_STORAGE_PATH_CACHE = "rt_storage_path_cache";
/// initRuntime. Reserved for the engine's own files; libtavo creates it and writes nothing there.
/// Default: Caches + `/core`.
inline constexpr const char* ZM_KEY_STORAGE_PATH_CORE = "rt_storage_path_core";
/// initRuntime. The plug-in root: `P/<provider>_<version>/` and its config file
/// `P/<provider>_<version>.detail.json`. Default: Caches + `/plugin`.
inline constexpr const char* ZM_KEY_STORAGE_PATH_PLUGIN = "rt_storage_path_plugin";
// Limits on unpacking one game or plug-in package, as a positive whole number (or text reading
// as one): the total size its entries declare (default 4 GiB), and that total over the size of
// the archive (default 1000). A package beyond either fails its install before anything is
// unpacked or cleared.
/// initRuntime. Most bytes one game or plug-in package may unpack to, as its entries declare
/// (default 4 GiB).
inline constexpr const char* ZM_KEY_PACKAGE_MAX_UNPACKED_BYTES = "rt_package_max_unpacked_bytes";
/// initRuntime. Most times its own size a package may unpack to (default 1000).
inline constexpr const char* ZM_KEY_PACKAGE_MAX_COMPRESSION_RATIO =
    "rt_package_max_compression_ratio";
/// initRuntime. How many times a package download (a game's or a plug-in's) that fails after some
/// bytes arrived is continued where it stopped, as a whole number (default 0: never, a failure ends
/// it). With a positive number the bytes received are also kept beside the package, so that the
/// next download of the same URL and hash, in any process, continues them while the server agrees
/// (same ETag or Last-Modified); bytes nobody continues for a day are removed at the next runtime
/// creation.
inline constexpr const char* ZM_KEY_DOWNLOAD_RESUME_ATTEMPTS = "rt_download_resume_attempts";
/// initRuntime. Minisign public keys that every package must be signed by one of: a list of texts,
/// or one text, each the base64 line of a minisign public key file ("RW..."; the whole file will
/// do). Absent, null, "" or []: packages need no signature and nothing below applies. A text that
/// is no such key fails the runtime's creation ("init fail", "invalid trusted key: <text>").
///
/// With keys, a package needs its detached signature (`minisign -Sm package`), prehashed (the
/// default) or legacy, fetched from the package's URL + ".minisig" (a plug-in's: the URL the
/// plug-in service names + ".minisig"):
///   - downloadGamePackage fetches it after the package and keeps it beside the package as
///     "<package path>.minisig"; the package is verified before it appears at its path, and a
///     package without a good signature is not kept;
///   - installGamePackage verifies the package against "<package path>.minisig" before anything
///     is cleared or unpacked; a failure leaves the installed version as it was;
///   - a plug-in's install, its update prefetch and the install of a prefetched update verify the
///     package before unpacking it; a prefetched update that fails is not kept, and is logged.
/// A refusal reaches the failure callback as an error with code 0 and one of these domains:
///   "package signature missing: <signature URL or path>"   none could be had (any HTTP failure
///                                                          counts, a file that is not there)
///   "package signature invalid: <signature URL or path>"   malformed, or it does not verify: the
///                                                          package or the trusted comment was
///                                                          changed after signing
///   "package signature untrusted: <key id>"                signed by a key not among these (the
///                                                          id as minisign prints it)
inline constexpr const char* ZM_KEY_PACKAGE_TRUSTED_KEYS = "rt_package_trusted_keys";

// Game packages (check, download, install, getGameConfig) and the "detail.json" members.
/// check, download, install, getGameConfig: the game's app id; also a member of `detail.json`.
inline constexpr const char* ZM_KEY_GAME_PACKAGE_APP_ID = "rt_game_package_app_id";
/// check, download, install, getGameConfig: the version text; also a member of `detail.json`.
inline constexpr const char* ZM_KEY_GAME_PACKAGE_VERSION = "rt_game_package_version";
/// download: the package's URL (HTTP or HTTPS).
inline constexpr const char* ZM_KEY_GAME_PACKAGE_URL = "rt_game_package_url";
/// download: the package's MD5, 32 lower-case hex digits.
inline constexpr const char* ZM_KEY_GAME_PACKAGE_HASH = "rt_game_package_hash";
/// install: the package file; deleted once installed.
inline constexpr const char* ZM_KEY_GAME_PACKAGE_PATH = "rt_game_package_path";
/// install: unpack a subpackage into this directory of an installed game, keeping the rest;
/// `detail.json` lists it under "subpackages".
inline constexpr const char* ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT =
    "rt_game_package_subpackage_root";
/// install: text kept on the user's record (listGame's `rt_game_item_extend`).
inline constexpr const char* ZM_KEY_GAME_PACKAGE_EXTEND_DATA = "rt_game_package_extend_data";

// Game launch (runGame).
/// runGame: the installed version to launch (required).
inline constexpr const char* ZM_KEY_RUN_OPT_VERSION = "rt_run_opt_version";
/// runGame: text stored on the record when the launch succeeds (absent clears it).
inline constexpr const char* ZM_KEY_RUN_OPT_EXTEND = "rt_run_opt_extend";
/// runGame: passed to the engine as given.
inline constexpr const char* ZM_KEY_RUN_OPT_APP_LAUNCH_OPTIONS = "rt_run_opt_app_launch_options";
/// runGame: passed to the engine as given.
inline constexpr const char* ZM_KEY_RUN_DEBUG_SHOW_DEBUG_VIEW = "rt_run_debug_show_debug_view";
/// runGame: when true, libtavo logs the launch's steps with the seconds since its start.
inline constexpr const char* ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG =
    "rt_run_debug_show_game_loading_time_log";
/// runGame: passed to the engine as given.
inline constexpr const char* ZM_KEY_RUN_DEBUG_SKIPPED_FRAME_WARNING_LIMIT =
    "rt_run_debug_skipped_frame_warning_limit";

// Cache sweep (checkFileAvailability).
/// checkFileAvailability: the file name extensions to sweep (`["zgp", "zip"]`).
inline constexpr const char* ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY =
    "rt_check_file_extension_name_array";
/// checkFileAvailability: minutes a file is kept (at least 1).
inline constexpr const char* ZM_KEY_CHECK_FILE_KEEP_TIME = "rt_check_file_keep_time";

// Set by runGame for the engine.
/// set by runGame for the engine: the runtime's user id.
inline constexpr const char* ZM_KEY_USER_ID = "rt_user_id";
/// set by runGame for the engine: `U/<user>_<app>/rt_local_storage.db`.
inline constexpr const char* ZM_KEY_RUNTIME_LOCAL_STORAGE_PATH = "rt_runtime_local_storage_path";

// Fields of the items that listGame reports.
/// listGame items: the app id.
inline constexpr const char* ZM_KEY_GAME_ITEM_APP_ID = "rt_game_item_app_id";
/// listGame items: the record's extend text, when it has one.
inline constexpr const char* ZM_KEY_GAME_ITEM_EXTEND = "rt_game_item_extend";

// System keys: written by libtavo into the engine's run options.
/// for the engine: `U/<user>_<app>/data`.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_USER_DATA_PATH = "_rt_file_user_data_path";
/// for the engine: `A/<app>/<version>`.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH = "_rt_file_app_package_path";
/// for the engine: `C/<user>_<app>/tmp`.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_USER_TEMP_PATH = "_rt_file_user_temp_path";
/// for the engine: `A/<app>/detail.json`.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_APP_DETAIL_PATH = "_rt_file_app_detail_path";
/// for the engine: `U/<user>_<app>/local_storage.db`.
inline constexpr const char* ZM_SYSTEM_KEY_LOCAL_STORAGE_PATH = "_rt_local_storage_path";
/// for the engine: when runGame began, seconds since 1970.
inline constexpr const char* ZM_SYSTEM_KEY_GAME_LOADING_START_TIME = "_rt_game_loading_start_time";
/// for the engine: the plug-in root P.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_PLUGIN_PACKAGE_PATH =
    "_rt_file_plugin_package_path";
