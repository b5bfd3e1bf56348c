"""What a render could not show as Blender says it: told in the panel and in the terminal."""

_told = []


def begin():
    _told.clear()


def note(text):
    if text not in _told:
        _told.append(text)


def told():
    return list(_told)
