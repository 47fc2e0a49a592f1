// A host that edits a mapper from several threads: the cached placement must
// follow the record (run under the tsan preset to see the race it guards).
#include <gtest/gtest.h>

#include <thread>

#include "Ferrim/Ferrim.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

TEST(UvMapperThreads, SettersOnTwoThreadsLeaveTheCacheMatchingTheRecord) {
    Ferrim::startup();
    {
        UvMapper mapper;
        auto edit = [&](char const* property, float base) {
            for (int i = 0; i < 2000; ++i) mapper.set(property, Pos(base + float(i), 0.5f, 1.f));
        };
        std::thread offsets(edit, "offset", 0.f), scales(edit, "scale", 1.f);
        offsets.join();
        scales.join();
        // A fresh mapper computes its cache from the same record.
        EXPECT_EQ(mapper.getTransform(), mapper.snapshot()->getTransform());
        EXPECT_EQ(mapper.getMapping().offset, Pos(1999.f, 0.5f, 1.f));
        EXPECT_EQ(mapper.getMapping().scale, Pos(2000.f, 0.5f, 1.f));
    }
    Ferrim::shutdown();
}
