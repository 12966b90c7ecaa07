"""kivtool for labgrid: a driver that runs the tool on the board behind one adapter."""
from .driver import (ADAPTER_PRODUCT_ID, ADAPTER_VENDOR_ID, KivtoolDriver, KivtoolError,
                     KivtoolMismatch, KivtoolUnavailable)

__all__ = ["KivtoolDriver", "KivtoolError", "KivtoolMismatch", "KivtoolUnavailable",
           "ADAPTER_VENDOR_ID", "ADAPTER_PRODUCT_ID"]
