include $(sort $(wildcard $(BR2_EXTERNAL_ORVFILEUTILS_PATH)/package/*/*.mk))
