"""Records the sensor-control functions return."""
from dataclasses import dataclass
from typing import Dict, List, Optional


@dataclass(frozen=True)
class Sensor:
    """One sensor as the service describes it: presence and type code, the six information bytes in the
    library's order, both version blocks (empty when unknown), link and video state (None when the status
    query failed) and the state byte."""

    id: int
    name: str
    kind: str
    present: bool
    type_code: int
    info: Optional[bytes]
    version0: Optional[bytes]
    version1: Optional[bytes]
    link: Optional[bool]
    video: Optional[bool]
    state: Optional[int]


@dataclass(frozen=True)
class Status:
    """Link and video masks (bit n: sensor n) and the state byte of each sensor the service reports."""

    link_mask: int
    video_mask: int
    states: Dict[str, int]


@dataclass(frozen=True)
class Diagnostics:
    """Radar and lidar internal-parameter states, and the radars' level-2 faults with the service's time."""

    radar_state: int
    lidar_state: int
    radar_faults: List[int]
    fault_time: int
