// geometry/motion.h: what moves while the shutter is open, in format 2. Times run from 0, when it opens, to
// 1, when it closes; all that moves stands at time 0 until it is moved. In format 1 only vertices move, step
// by step (accel/update.cpp).

#pragma once

#include <string>

#include "geometry/geometry.h"
#include "geometry/object.h"

namespace zp {

// What vertices do while the shutter is open: the values of the vector set "motion", one a vertex. Null where
// the Part does not move, and in format 1.
std::vector<Vec3>* MotionOf(Part& part);

// The vector set with the normals that a file gives to the vertices when the shutter closes.
inline constexpr const char* kEndNormalSet = "end normal";

// Fills part.endNormals and part.endTangents, for vertices that have such a vector: what the file gives,
// where the Shader keeps a model's normals, else the vector carried along by the faces around it. Vertices at
// one place that move alike are carried alike.
void DeriveEndVectors(Part& part);

// Remembers where the Part's vertices are at time 0. Rectangles that do not only move along become triangles.
void PrepareMotion(Part& part);
// Positions along straight lines, normals and tangents from the one to the other; of strands the tangents of
// the curve.
void MovePart(Part& part, float time);

// Says where the Instance is when the shutter closes.
void SetMatrixEnd(Instance& instance, const Mat4& close);
// Of an Instance that says where it ends: decomposes both places. One that cannot move stands still, with an
// error row.
void PrepareMotion(Instance& instance);
// The matrix at that time.
Mat4 MatrixAt(const Instance& instance, float time);
// Gives it to the Instance, and nothing else.
void MoveInstance(Instance& instance, float time);
// How far a place of the Part, which its corners tell, goes while the shutter is open, in either format.
Vec3 MotionAt(const Part& part, const Corners& corners);
// Why nothing leads from one place to the other; empty if something does.
std::string MotionProblem(const Mat4& open, const Mat4& close);

}  // namespace zp
