#pragma once

#include "tests/vl/install/installfixture.h"

// Three versions between which a switch meets everything that it can: files that are added,
// removed, changed and moved, files that become folders and back, files and folders of the user in
// the way of new ones and elsewhere, settings that the user has changed and others.
namespace scenario {

inline const Files first{{"bin/simulator", "the simulator"},
                         {"a", "old"},
                         {"gone", "only here"},
                         {"moved/here", someBytes(3000, 1)},
                         {"x", "a file"},
                         {"own.ini", "speed=1"},
                         {"std.ini", "sound=1"},
                         {"same", "the same in all"}};
inline const Files second{{"bin/simulator", "a newer simulator"},
                          {"a", "new"},
                          {"b/c", "nested"},
                          {"moved/there", someBytes(3000, 1)},
                          {"plan", "a file"},
                          {"x/y", "below what was a file"},
                          {"own.ini", "speed=2"},
                          {"std.ini", "sound=2"},
                          {"same", "the same in all"}};
inline const Files third{
    {"bin/simulator", "the newest one"}, {"b", "a file"},        {"gone", "here again"},
    {"x/y", "below what was a file"},    {"own.ini", "speed=3"}, {"same", "the same in all"}};

/// The user's files beside the first version, and beside the second one.
inline const Files besideFirst{{"b", "mine, in the way of a folder"},
                               {"plan/own", "mine, in a folder in the way of a file"},
                               {"notes/log", "mine"},
                               {"own.ini", "speed=9"}};
inline const Files besideSecond{{"gone", "mine, in the way of a file"},
                                {"x/mine", "mine, in a folder in the way of a file"},
                                {"notes/log", "mine"},
                                {"own.ini", "speed=9"}};

inline void publish(Releases& releases)
{
    releases.publish("1.0.0", first);
    releases.publish("2.0.0", second);
    releases.publish("3.0.0", third);
}

} // namespace scenario
