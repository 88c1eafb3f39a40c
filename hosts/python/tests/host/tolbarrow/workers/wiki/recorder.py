"""What the test host's services were asked, in order, and the errors they are told to raise once."""

CALLS = []  # (service, args)
FAIL = {}  # service -> exception to raise the next time it is called
FAIL_AT = {}  # index in CALLS -> exception that call raises


def enter(service, *args):
    CALLS.append((service, args))
    error = FAIL_AT.pop(len(CALLS) - 1, None) or FAIL.pop(service, None)
    if error is not None:
        raise error


def called(service):
    return [args for name, args in CALLS if name == service]


def reset():
    CALLS.clear()
    FAIL.clear()
    FAIL_AT.clear()
