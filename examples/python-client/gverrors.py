"""What can go wrong with a peer."""


class Failure(Exception):
    """What went wrong, for a person: what, with which peer, what was expected."""


class CallFailed(Failure):
    """The peer answered with an error; its text is the message."""


class ConnectionLost(Failure):
    """The connection has ended, or the peer broke the rules; a call under way may have run."""


class TimedOut(Failure):
    """The bound has passed. A call goes on at the peer; its late reply is ignored."""
