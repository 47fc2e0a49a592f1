"""The mapping randomizer's stochastic tiling, driven from Python through its properties."""
import numpy as np

import ferrim


def _stochastic(seed, **properties):
    m = ferrim.create("MappingRandomizerMap")
    m["map"] = ferrim.create("NoiseMap")
    m.update({"randomBy": "None", "stochastic": True, "seed": seed, **properties})
    return m


def test_stochastic_tiling_is_smooth_follows_the_seed_and_clamps_its_blend():
    # A line through many patches, one point every 1e-4 UV.
    t = np.arange(20000, dtype=np.float32) * np.float32(1e-4)
    uvw = np.stack([t, 0.3 + 0.37 * t, np.zeros_like(t)], axis=-1)
    a = _stochastic(1, stochasticSize=0.3).eval_color(uvw)
    assert np.abs(np.diff(a[:, :3], axis=0)).max() < 0.01
    assert np.array_equal(a, _stochastic(1, stochasticSize=0.3).eval_color(uvw))
    assert np.mean(np.abs(a - _stochastic(2, stochasticSize=0.3).eval_color(uvw))[:, 0] > 1e-4) > 0.9
    m = _stochastic(1, stochasticBlend=5.0)
    assert m["stochasticBlend"] == 1.0
