#pragma once

// Which processes came from which child of ours, and their end.
//
// Three things tell that a process came from a child, and none is enough alone: its chain of parents
// (broken when one of them ends), its group (left with setsid), and a mark in its environment, which is
// handed on with every start (lost when a program clears its environment).

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

namespace os {

/// A child of this process and what its descendants are known by.
struct TreeRoot {
  pid_t id = 0;
  std::uint64_t start_time = 0;
  std::string mark;
};

/// The variable that holds the mark.
inline constexpr char kMarkVariable[] = "TOLM_STARTED_BY";

/// A mark that no other child has; it begins with the mark of this process, so that whoever is above
/// recognises the descendants of its child.
std::string MakeMark();

using ChildPlace = std::map<pid_t, TreeRoot>;

/// Forks on the calling thread a child with `root.mark`, and fills in the rest of `root`. The new process is
/// known as a child of ours from its first moment on. As fork does, gives 0 in it, and -1 with errno when
/// there is none.
/// `place` holds `root` under the number 0: its place among the children, made before, since nothing may fail
/// behind a fork, and the caller's, since the new process must not free it.
pid_t ForkChild(TreeRoot& root, ChildPlace& place);
/// Waits for a child's end and collects it; its number means nothing afterwards.
void CollectChild(pid_t id);

/// Whether anything but the root itself is left of a tree. REQUIRES: the root is not collected yet, since
/// its number is also its group's; so for KillTreeOf.
bool HasDescendants(const TreeRoot& root);

/// Kills a tree and waits until nothing of it runs. False when a part of it does not end within a second, or
/// others come up for three.
bool KillTreeOf(const TreeRoot& root) noexcept;

/// Whether AdoptOrphans was called.
bool AdoptsOrphans();

}  // namespace os
