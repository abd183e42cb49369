#pragma once

// The texts of errors, as formats of {fmt}: descriptions of errors, or the line that is printed before the process ends.
namespace ErrorText {

inline constexpr const char* externalHashDiffers = "INFO: external hash: {} but got hash: {}.";
inline constexpr const char* bytesCopiedDiffer = "the expected filesize ({}) is not the number of bytes copied ({})";
// The last number is that of the bytes copied, not the size found: it shows whether a write or the source was short.
inline constexpr const char* sizeOnDiskDiffers =
    "the expected filesize ({}) is not the number of bytes for file {} ({})";
inline constexpr const char* destinationDigestDiffers = "INFO: expected hash: {} but got hash: {}.";
inline constexpr const char* notSynced = "Error: couldn't sync the file system of file {} (error code {})\n";
inline constexpr const char* fileNotReadable = "ERROR: could not open file at path: {}\n";
inline constexpr const char* finalNameTaken = "{} already exists";
inline constexpr const char* verificationFailed = "verification failed: {}";

}  // namespace ErrorText
