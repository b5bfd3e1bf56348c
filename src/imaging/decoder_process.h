// imaging/decoder_process.h: work on bytes that nobody trusts, in a process of its own.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "imaging/imaging.h"

namespace zp {

// Reads a picture out of an open file, in the child, whose memory the caller never sees.
struct DecoderJob {
  PictureProblem (*decode)(const DecoderJob& job, ImageBuffer& image) = nullptr;
  int file = -1;
  std::size_t size = 0;  // of the file, bytes
  bool allowPacked = true;
  std::int32_t format = 1;  // of the scene: settings.format
};

// Forks a small process, which forks one for each picture from then on: a process that holds a scene of
// gigabytes would copy its page tables for each of them. Without it, and where it was lost, all works the
// same. Both are for the thread that starts and ends the library.
void StartDecoders();
void StopDecoders();

// Runs the job in a process of its own and hands over the picture. Whatever the job does, in wild writes,
// endless loops or greed for memory, ends there and is kDamaged here; kStopped once all shall stop. None if
// no process can be had.
std::optional<PictureProblem> DecodeInChild(const DecoderJob& job, ImageBuffer& image);

// For jobs. Limits of the child, from now on; without effect in other processes.
void LimitDecoder(std::chrono::milliseconds processorTime, std::size_t memory);
// Ends the child at once, as damaged; returns in other processes.
void GiveUpDecoding();

}  // namespace zp
