// The core library (libquorcore): small file and volume helpers.
// Declarations only; the linked platform defines them.
#pragma once

// A volume parsed from a volume name or a path on it. The volume's path, as
// NUL-terminated text, comes first; callers may read just that.
struct VOLUME_PATH_INFO {
    char path[4096];
    int volume_number;
    unsigned long long free_bytes;
    unsigned long long total_bytes;
};

// Non-zero when `path` exists.
int QLIBCFileExist(const char* path);

// Sets `key` to `value` in a key="value" text file, keeping its other keys.
// Greater than 0 on success, 0 or less on failure.
int QLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags);

// Fills `info` for the volume named by `text` ("volume1", "/volume1" or a path
// on a volume). Negative on failure.
int VolumePathParseEx(const char* text, VOLUME_PATH_INFO* info);
