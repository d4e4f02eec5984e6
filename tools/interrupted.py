"""What a command says when somebody stops it with the keyboard: a line instead of the place in Python where it happened to be."""
import sys


def say_in_one_line(name, more=""):
    """From now on an interrupt that nobody takes is told as `name`: interrupted. The command still ends by the signal, so that a shell's loop
    around it ends too."""
    usual = sys.excepthook

    def tell(kind, error, trace):
        if issubclass(kind, KeyboardInterrupt):
            print(f"{name}: interrupted{more}", file=sys.stderr)
        else:
            usual(kind, error, trace)

    sys.excepthook = tell
