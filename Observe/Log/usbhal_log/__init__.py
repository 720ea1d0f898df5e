# SPDX-License-Identifier: MIT
"""Reads the log of the UsbHal library: shows it, sums it up, draws it, packs it."""
