"""What the test host's services were asked, in order, and the errors they are told to raise once."""

CALLS = []  # (service, args)
FAIL = {}  # service -> exception to raise the next time it is called


def enter(service, *args):
    CALLS.append((service, args))
    error = FAIL.pop(service, None)
    if error is not None:
        raise error


def called(service):
    return [args for name, args in CALLS if name == service]


def reset():
    CALLS.clear()
    FAIL.clear()
