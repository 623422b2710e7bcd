"""A fixture for tests of host programs: a virtual unit that runs for one test.

    @pytest.mark.virtual_unit(scenario="busy-lab")
    def test_my_program(virtual_unit):
        with virtual_unit.connect() as unit: ...
"""

from __future__ import annotations

from typing import Iterator

import pytest

from .virtual_unit import VirtualUnit


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers", "virtual_unit(...): arguments of vexahost.VirtualUnit for the fixture"
    )


@pytest.fixture
def virtual_unit(request: pytest.FixtureRequest) -> Iterator[VirtualUnit]:
    """A running vexahost.VirtualUnit: the default one, or as the marker of this name says."""
    marker = request.node.get_closest_marker("virtual_unit")
    unit = VirtualUnit(*marker.args, **marker.kwargs) if marker else VirtualUnit()
    with unit:
        yield unit
