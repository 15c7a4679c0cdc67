"""Python helpers of liblumora-api's tools.

lumora.testing: a private bus with lumora-sim on it for an application's
tests, as a pytest fixture (lumora_sim) and as a context manager
(lumora.testing.Simulator).
"""
