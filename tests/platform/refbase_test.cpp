#include "refbase.h"

#include <gtest/gtest.h>

namespace Vex {
namespace {

class Tracked : public virtual RefBase {
public:
    explicit Tracked(int& destroyed) : destroyed_(destroyed) {}
    ~Tracked() override { ++destroyed_; }
    void OnFirstStrongRef(const void*) override { ++firstRefs_; }
    int firstRefs_ = 0;

private:
    int& destroyed_;
};

TEST(RefBaseTest, LastStrongReferenceFreesAndWeakOnesOutliveTheObject)
{
    int destroyed = 0;
    wptr<Tracked> weak;
    {
        sptr<Tracked> strong = new Tracked(destroyed);
        sptr<Tracked> copy = strong;
        EXPECT_EQ(strong->GetSptrRefCount(), 2);
        EXPECT_EQ(strong->firstRefs_, 1);
        weak = strong;
        sptr<Tracked> promoted = weak.promote();
        EXPECT_EQ(promoted, strong);
        strong = nullptr;
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(weak.promote(), nullptr);  // the control block answers after the object is gone
    wptr<Tracked> weakCopy = weak;
    EXPECT_EQ(weakCopy.promote(), nullptr);
}

TEST(RefBaseTest, AttemptIncStrongRefOnlyWhileAlive)
{
    int destroyed = 0;
    sptr<Tracked> strong = new Tracked(destroyed);
    EXPECT_TRUE(strong->AttemptIncStrongRef());
    strong->DecStrongRef();
    Tracked* raw = new Tracked(destroyed);  // never strongly held
    EXPECT_FALSE(raw->AttemptIncStrongRef());
    sptr<Tracked> adopt = raw;
    EXPECT_EQ(adopt->GetSptrRefCount(), 1);
}

}  // namespace
}  // namespace Vex
