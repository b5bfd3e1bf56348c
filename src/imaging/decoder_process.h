// imaging/decoder_process.h: work on bytes that nobody trusts, in a process of its own.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "imaging/imaging.h"

namespace zp {

// Fills a picture; runs in the child, whose memory the caller never sees.
struct DecoderJob {
  PictureProblem (*decode)(void* context, ImageBuffer& image);
  void* context;
};

// Runs the job in a copy of this process and hands over the picture. Whatever the job does, in wild writes,
// endless loops or greed for memory, ends there and is kDamaged here; kStopped once all shall stop. None if
// no process can be had.
std::optional<PictureProblem> DecodeInChild(const DecoderJob& job, ImageBuffer& image);

// For jobs. Limits of the child, from now on; without effect in other processes.
void LimitDecoder(std::chrono::milliseconds processorTime, std::size_t memory);
// Ends the child at once, as damaged; returns in other processes.
void GiveUpDecoding();

}  // namespace zp
