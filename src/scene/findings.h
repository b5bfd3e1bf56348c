// scene/findings.h: everything that a check can find. docs/check.md explains each.

#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

namespace zp {

// An error makes the scene show something else than its text says; a warning may surprise; a note tells of
// words that change nothing.
enum class Severity { kNote, kWarning, kError };

enum class FindingCode {
  // Text.
  kUnreadableFile,
  kUnreadFile,
  kLongLine,
  kUnknownSection,
  kUnknownKeyword,
  kUnknownWord,
  kEarlyEnd,
  kMissingEnd,
  kMissingKeyword,
  kMissingValue,
  kBadNumber,
  kBadString,
  kQuotedWord,
  kDefaultWithoutEffect,
  kWithoutEffect,
  kLimitedValue,
  // Names and files.
  kUnknownShader,
  kUnknownObject,
  kMissingFolder,
  kMissingImage,
  kDamagedImage,
  kMissingModel,
  kEmptyModel,
  kDroppedFaces,
  kNoMaterial,
  kStrandPoints,
  kShortSegments,
  kUnfitPicture,
  kUnusedPicture,
  kSixteenBits,
  kLinearColors,
  kNormalRange,
  kUnknownUvSet,
  kReplaced,
  // Shaders.
  kUnnamedShader,
  kBlackImage,
  kNoIor,
  kNoWeights,
  kUnweightedLayer,
  kHighAlbedo,
  kKeptNormals,
  // Objects.
  kUnreachedShader,
  kNotRigid,
  kUnplacedObject,
  kNotDrawn,
  kCyclicInstance,
  kDeepInstance,
  kTooManyParts,
  // Lights, cameras and images.
  kUnsampledEmitter,
  kNoEmitter,
  kNoCamera,
  kIdleCamera,
  kManyPoses,
  kCameraPose,
  kNoPixels,
  kBlackAov,
  kEmptyAov,
  kUnwrittenAov,
  kAovOverwritten,
  kUnknownFormat,
  kFewBits,
  kRoundedAov,
  kClippedAov,
  // The renderer.
  kTinyCells,
  kManyCells,
  kDarkInstances,
  kHalfGathering,
  kEndless,
  // The format.
  kOldFormat,
};

struct FindingRow {
  FindingCode code;
  std::string_view word;  // stable: programs compare it
  Severity severity;
  bool advises = false;  // its suggestion is a line to write, not a word that was meant
};
inline constexpr FindingRow kFindings[] = {
    {FindingCode::kUnreadableFile, "unreadable-file", Severity::kError},
    {FindingCode::kUnreadFile, "unread-file", Severity::kWarning},
    {FindingCode::kLongLine, "long-line", Severity::kError},
    {FindingCode::kUnknownSection, "unknown-section", Severity::kError},
    {FindingCode::kUnknownKeyword, "unknown-keyword", Severity::kError},
    {FindingCode::kUnknownWord, "unknown-word", Severity::kError},
    {FindingCode::kEarlyEnd, "early-end", Severity::kError},
    {FindingCode::kMissingEnd, "missing-end", Severity::kError},
    {FindingCode::kMissingKeyword, "missing-keyword", Severity::kError},
    {FindingCode::kMissingValue, "missing-value", Severity::kError},
    {FindingCode::kBadNumber, "bad-number", Severity::kError},
    {FindingCode::kBadString, "bad-string", Severity::kError},
    {FindingCode::kQuotedWord, "quoted-word", Severity::kWarning},
    {FindingCode::kDefaultWithoutEffect, "default-without-effect", Severity::kNote},
    {FindingCode::kWithoutEffect, "without-effect", Severity::kWarning},
    {FindingCode::kLimitedValue, "limited-value", Severity::kWarning},
    {FindingCode::kUnknownShader, "unknown-shader", Severity::kError},
    {FindingCode::kUnknownObject, "unknown-object", Severity::kError},
    {FindingCode::kMissingFolder, "missing-folder", Severity::kWarning},
    {FindingCode::kMissingImage, "missing-image", Severity::kError},
    {FindingCode::kDamagedImage, "damaged-image", Severity::kError},
    {FindingCode::kMissingModel, "missing-model", Severity::kError},
    {FindingCode::kEmptyModel, "empty-model", Severity::kError},
    {FindingCode::kDroppedFaces, "dropped-faces", Severity::kError},
    {FindingCode::kNoMaterial, "no-material", Severity::kWarning},
    {FindingCode::kStrandPoints, "strand-points", Severity::kError},
    {FindingCode::kShortSegments, "short-segments", Severity::kWarning},
    {FindingCode::kUnfitPicture, "unfit-picture", Severity::kError},
    {FindingCode::kUnusedPicture, "unused-picture", Severity::kError},
    {FindingCode::kSixteenBits, "sixteen-bits", Severity::kWarning, true},
    {FindingCode::kLinearColors, "linear-colors", Severity::kWarning, true},
    {FindingCode::kNormalRange, "normal-range", Severity::kWarning, true},
    {FindingCode::kUnknownUvSet, "unknown-uv-set", Severity::kWarning},
    {FindingCode::kReplaced, "replaced", Severity::kWarning},
    {FindingCode::kUnnamedShader, "unnamed-shader", Severity::kWarning},
    {FindingCode::kBlackImage, "black-image", Severity::kWarning},
    {FindingCode::kNoIor, "no-ior", Severity::kError},
    {FindingCode::kNoWeights, "no-weights", Severity::kError},
    {FindingCode::kUnweightedLayer, "unweighted-layer", Severity::kWarning},
    {FindingCode::kHighAlbedo, "high-albedo", Severity::kWarning},
    {FindingCode::kKeptNormals, "kept-normals", Severity::kWarning, true},
    {FindingCode::kUnreachedShader, "unreached-shader", Severity::kError},
    {FindingCode::kNotRigid, "not-rigid", Severity::kError},
    {FindingCode::kUnplacedObject, "unplaced-object", Severity::kWarning},
    {FindingCode::kNotDrawn, "not-drawn", Severity::kError},
    {FindingCode::kCyclicInstance, "cyclic-instance", Severity::kError},
    {FindingCode::kDeepInstance, "deep-instance", Severity::kError},
    {FindingCode::kTooManyParts, "too-many-parts", Severity::kError},
    {FindingCode::kUnsampledEmitter, "unsampled-emitter", Severity::kWarning},
    {FindingCode::kNoEmitter, "no-emitter", Severity::kWarning},
    {FindingCode::kNoCamera, "no-camera", Severity::kError},
    {FindingCode::kIdleCamera, "idle-camera", Severity::kWarning},
    {FindingCode::kManyPoses, "many-poses", Severity::kError},
    {FindingCode::kCameraPose, "camera-pose", Severity::kError},
    {FindingCode::kNoPixels, "no-pixels", Severity::kError},
    {FindingCode::kBlackAov, "black-aov", Severity::kError, true},
    {FindingCode::kEmptyAov, "empty-aov", Severity::kWarning},
    {FindingCode::kUnwrittenAov, "unwritten-aov", Severity::kWarning},
    {FindingCode::kAovOverwritten, "aov-overwritten", Severity::kWarning},
    {FindingCode::kUnknownFormat, "unknown-format", Severity::kError},
    {FindingCode::kFewBits, "few-bits", Severity::kError},
    {FindingCode::kRoundedAov, "rounded-aov", Severity::kWarning},
    {FindingCode::kClippedAov, "clipped-aov", Severity::kWarning},
    {FindingCode::kTinyCells, "tiny-cells", Severity::kWarning},
    {FindingCode::kManyCells, "many-cells", Severity::kError},
    {FindingCode::kDarkInstances, "dark-instances", Severity::kWarning, true},
    {FindingCode::kHalfGathering, "half-gathering", Severity::kWarning},
    {FindingCode::kEndless, "endless", Severity::kWarning},
    {FindingCode::kOldFormat, "old-format", Severity::kWarning, true},
};
constexpr bool FindingsAreInOrder() {
  for (std::size_t i = 0; i < std::size(kFindings); ++i)
    if (static_cast<std::size_t>(kFindings[i].code) != i) return false;
  return std::size(kFindings) == static_cast<std::size_t>(FindingCode::kOldFormat) + 1;
}
static_assert(FindingsAreInOrder());

constexpr const FindingRow& RowOf(FindingCode code) { return kFindings[static_cast<std::size_t>(code)]; }
constexpr std::string_view SeverityWord(Severity severity) {
  return severity == Severity::kError ? "error" : severity == Severity::kWarning ? "warning" : "note";
}

}  // namespace zp
