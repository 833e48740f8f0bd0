// The entry points of a cycle, in its order.
#pragma once

namespace bench::phase {

inline constexpr char freeze[] = "freeze";
inline constexpr char control[] = "resync at start";
inline constexpr char freeze_commit[] = "freeze commit";
inline constexpr char checkpoint[] = "checkpoint";
inline constexpr char rebuild[] = "rebuild";
inline constexpr char volumes[] = "volumes";
inline constexpr char thaw[] = "thaw";
inline constexpr char thaw_commit[] = "thaw commit";

inline constexpr const char *all[] = {freeze,  control, freeze_commit, checkpoint,
                                      rebuild, volumes, thaw,          thaw_commit};

}  // namespace bench::phase
