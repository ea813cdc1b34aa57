#pragma once

// Keys of the option dictionaries. Host keys begin with "rt_"; the keys beginning with "_rt_"
// are written by libtavo into the run options it hands to the engine, never by the host.

// Runtime creation (ZMZimoGame::initRuntime).
inline constexpr const char* ZM_KEY_STORAGE_PATH_APP = "rt_storage_path_app";
inline constexpr const char* ZM_KEY_STORAGE_PATH_USER = "rt_storage_path_user";
inline constexpr const char* ZM_KEY_STORAGE_PATH_CACHE = "rt_storage_path_cache";
inline constexpr const char* ZM_KEY_STORAGE_PATH_CORE = "rt_storage_path_core";
inline constexpr const char* ZM_KEY_STORAGE_PATH_PLUGIN = "rt_storage_path_plugin";
// Limits on unpacking one game or plug-in package, as a positive whole number (or text reading
// as one): the total size its entries declare (default 4 GiB), and that total over the size of
// the archive (default 1000). A package beyond either fails its install before anything is
// unpacked or cleared.
inline constexpr const char* ZM_KEY_PACKAGE_MAX_UNPACKED_BYTES = "rt_package_max_unpacked_bytes";
inline constexpr const char* ZM_KEY_PACKAGE_MAX_COMPRESSION_RATIO =
    "rt_package_max_compression_ratio";
// How many times a package download (a game's or a plug-in's) that fails after some bytes arrived
// is continued where it stopped, as a whole number (default 0: never, a failure ends it). With a
// positive number the bytes received are also kept beside the package, so that the next download
// of the same URL and hash, in any process, continues them while the server agrees (same ETag or
// Last-Modified); bytes nobody continues for a day are removed at the next runtime creation.
inline constexpr const char* ZM_KEY_DOWNLOAD_RESUME_ATTEMPTS = "rt_download_resume_attempts";
// Minisign public keys that every package must be signed by one of: a list of texts, or one
// text, each the base64 line of a minisign public key file ("RW..."; the whole file will do).
// Absent, null, "" or []: packages need no signature and nothing below applies. A text that is
// no such key fails the runtime's creation ("init fail", "invalid trusted key: <text>").
//
// With keys, a package needs its detached signature (`minisign -Sm package`), prehashed (the
// default) or legacy, fetched from the package's URL + ".minisig" (a plug-in's: the URL the
// plug-in service names + ".minisig"):
//   - downloadGamePackage fetches it after the package and keeps it beside the package as
//     "<package path>.minisig"; the package is verified before it appears at its path, and a
//     package without a good signature is not kept;
//   - installGamePackage verifies the package against "<package path>.minisig" before anything
//     is cleared or unpacked; a failure leaves the installed version as it was;
//   - a plug-in's install, its update prefetch and the install of a prefetched update verify the
//     package before unpacking it; a prefetched update that fails is not kept, and is logged.
// A refusal reaches the failure callback as an error with code 0 and one of these domains:
//   "package signature missing: <signature URL or path>"   none could be had (any HTTP failure
//                                                          counts, a file that is not there)
//   "package signature invalid: <signature URL or path>"   malformed, or it does not verify: the
//                                                          package or the trusted comment was
//                                                          changed after signing
//   "package signature untrusted: <key id>"                signed by a key not among these (the
//                                                          id as minisign prints it)
inline constexpr const char* ZM_KEY_PACKAGE_TRUSTED_KEYS = "rt_package_trusted_keys";

// Game packages (check, download, install, getGameConfig) and the "detail.json" members.
inline constexpr const char* ZM_KEY_GAME_PACKAGE_APP_ID = "rt_game_package_app_id";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_VERSION = "rt_game_package_version";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_URL = "rt_game_package_url";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_HASH = "rt_game_package_hash";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_PATH = "rt_game_package_path";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT =
    "rt_game_package_subpackage_root";
inline constexpr const char* ZM_KEY_GAME_PACKAGE_EXTEND_DATA = "rt_game_package_extend_data";

// Game launch (runGame).
inline constexpr const char* ZM_KEY_RUN_OPT_VERSION = "rt_run_opt_version";
inline constexpr const char* ZM_KEY_RUN_OPT_EXTEND = "rt_run_opt_extend";
inline constexpr const char* ZM_KEY_RUN_OPT_APP_LAUNCH_OPTIONS = "rt_run_opt_app_launch_options";
inline constexpr const char* ZM_KEY_RUN_DEBUG_SHOW_DEBUG_VIEW = "rt_run_debug_show_debug_view";
inline constexpr const char* ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG =
    "rt_run_debug_show_game_loading_time_log";
inline constexpr const char* ZM_KEY_RUN_DEBUG_SKIPPED_FRAME_WARNING_LIMIT =
    "rt_run_debug_skipped_frame_warning_limit";

// Cache sweep (checkFileAvailability).
inline constexpr const char* ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY =
    "rt_check_file_extension_name_array";
inline constexpr const char* ZM_KEY_CHECK_FILE_KEEP_TIME = "rt_check_file_keep_time";

// Set by runGame for the engine.
inline constexpr const char* ZM_KEY_USER_ID = "rt_user_id";
inline constexpr const char* ZM_KEY_RUNTIME_LOCAL_STORAGE_PATH = "rt_runtime_local_storage_path";

// Fields of the items that listGame reports.
inline constexpr const char* ZM_KEY_GAME_ITEM_APP_ID = "rt_game_item_app_id";
inline constexpr const char* ZM_KEY_GAME_ITEM_EXTEND = "rt_game_item_extend";

// System keys: written by libtavo into the engine's run options.
inline constexpr const char* ZM_SYSTEM_KEY_FILE_USER_DATA_PATH = "_rt_file_user_data_path";
inline constexpr const char* ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH = "_rt_file_app_package_path";
inline constexpr const char* ZM_SYSTEM_KEY_FILE_USER_TEMP_PATH = "_rt_file_user_temp_path";
inline constexpr const char* ZM_SYSTEM_KEY_FILE_APP_DETAIL_PATH = "_rt_file_app_detail_path";
inline constexpr const char* ZM_SYSTEM_KEY_LOCAL_STORAGE_PATH = "_rt_local_storage_path";
inline constexpr const char* ZM_SYSTEM_KEY_GAME_LOADING_START_TIME = "_rt_game_loading_start_time";
inline constexpr const char* ZM_SYSTEM_KEY_FILE_PLUGIN_PACKAGE_PATH =
    "_rt_file_plugin_package_path";
