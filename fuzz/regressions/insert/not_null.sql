!insert or ignore into main."u"(x) values(NULL)
