"""The private message bus of tools/tavelsim.py under the name the tests have
always imported it by: PrivateBus(policy=OPEN_POLICY, include=None) and the
two policies."""
from harness import CLOSED_POLICY, OPEN_POLICY, PrivateBus  # noqa: F401
