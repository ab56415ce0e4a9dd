"""A small workspace to look at in the browser: wsbrowser host/examples/example.py"""

import numpy as np

answer = 42
ratio = 0.618034
flag = True
grid = np.arange(12, dtype=np.float64).reshape(3, 4) / 4
small_ints = np.array([-3, -1, 0, 2, 7], dtype=np.int8)
mask = np.array([True, False, True, True])
greeting = "Hello, workspace"
things = [1, "two", 3.0, None]
settings = {"mode": "fast", "retries": 3, "scale": 1.5}
odd = np.array([1.0, np.nan, np.inf, -np.inf, 2.5])
nothing = np.array([])

import pandas as pd

prices = pd.DataFrame({"day": [1, 2, 3, 4, 5], "close": [10.0, 10.5, np.nan, 11.25, 11.0],
                       "ticker": ["XYZ"] * 5})
waves = np.array([3 + 4j, 1j, -2 + 0j])
