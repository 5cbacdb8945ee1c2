#include "vl/src/install/deltaplan.h"

#include <algorithm>
#include <utility>

namespace vl {

namespace {

/// Walks from the target back to the base, cheapest first, and gives up what cannot pay off.
class Search final
{
public:
    Search(std::shared_ptr<const Manifest> base, const Hash& baseHash, std::uint64_t limit,
           ManifestLookup& lookup)
        : m_base(std::move(base)), m_baseHash(baseHash), m_lookup(lookup), m_best(limit)
    {
    }

    void visit(const std::shared_ptr<const Manifest>& target, std::uint64_t cost)
    {
        std::vector<DeltaReference> deltas = target->deltas;
        std::ranges::sort(deltas, {}, [](const DeltaReference& delta) { return delta.size; });
        for (const DeltaReference& delta : deltas) {
            const std::uint64_t here = cost + delta.size + delta.indexSize;
            if (here >= m_best)
                continue;
            m_steps.push_back({delta, nullptr, target});
            if (delta.fromManifest == m_baseHash)
                keep(here);
            else if (m_steps.size() < maxDeltaSteps)
                visitBase(delta, here);
            m_steps.pop_back();
        }
    }

    std::optional<DeltaPlan> takePlan() { return std::move(m_plan); }

private:
    void keep(std::uint64_t cost)
    {
        m_best = cost;
        m_plan = DeltaPlan{{m_steps.rbegin(), m_steps.rend()}, cost};
        m_plan->steps.front().base = m_base;
        for (std::size_t i = 1; i < m_plan->steps.size(); ++i)
            m_plan->steps[i].base = m_plan->steps[i - 1].target;
    }

    void visitBase(const DeltaReference& delta, std::uint64_t cost)
    {
        const auto manifestCost = m_lookup.cost(delta.from, delta.fromManifest);
        if (!manifestCost || cost + *manifestCost >= m_best)
            return;
        auto manifest = m_lookup.get(delta.from, delta.fromManifest);
        if (manifest)
            visit(std::make_shared<const Manifest>(std::move(*manifest)), cost + *manifestCost);
    }

    const std::shared_ptr<const Manifest> m_base;
    const Hash m_baseHash;
    ManifestLookup& m_lookup;
    std::uint64_t m_best;
    std::vector<DeltaStep> m_steps; ///< on the way, the newest version first
    std::optional<DeltaPlan> m_plan;
};

} // namespace

std::optional<DeltaPlan> findDeltaPlan(const std::shared_ptr<const Manifest>& base,
                                       const Hash& baseHash,
                                       const std::shared_ptr<const Manifest>& target,
                                       std::uint64_t limit, ManifestLookup& lookup)
{
    Search search(base, baseHash, limit, lookup);
    search.visit(target, 0);
    return search.takePlan();
}

} // namespace vl
